// Power spectra of real blocks on FFTW (single precision).
//
// FFTW's planner is not thread-safe, but executing a plan on new arrays is. So plans are made
// once per length under a lock, kept in a process-wide cache, and shared by every processor of
// that length; each processor brings its own SIMD-aligned buffers and runs the plan on them with
// fftwf_execute_dft_r2c, so processors of one length can run at the same time.

#include <sova/dsp.h>

#include <fftw3.h>

#include <cstring>
#include <map>
#include <mutex>
#include <new>

struct DSPB_FFTPROC
{
    int32_t length = 0;
    fftwf_plan plan = nullptr; // owned by the cache
    float* in = nullptr;
    fftwf_complex* out = nullptr;
};

namespace {

struct PlanCache
{
    std::mutex mutex;
    std::map<int32_t, fftwf_plan> plans;
};

// Never destroyed: a plan may be in use until the very end of the process, and a processor may
// outlive static destruction. The plans stay reachable from here for leak checkers.
PlanCache& planCache()
{
    static PlanCache* cache = new PlanCache;
    return *cache;
}

// The shared plan for a length, made on first use. The planning buffers come from fftwf_malloc,
// like every processor's buffers, so the plan's alignment assumptions hold for all of them.
fftwf_plan planFor(int32_t length)
{
    PlanCache& cache = planCache();
    std::lock_guard<std::mutex> lock(cache.mutex);
    auto it = cache.plans.find(length);
    if (it != cache.plans.end())
        return it->second;

    float* in = static_cast<float*>(fftwf_malloc(sizeof(float) * size_t(length)));
    fftwf_complex* out =
        static_cast<fftwf_complex*>(fftwf_malloc(sizeof(fftwf_complex) * (size_t(length) / 2 + 1)));
    fftwf_plan plan = nullptr;
    if (in && out)
        plan = fftwf_plan_dft_r2c_1d(length, in, out, FFTW_ESTIMATE);
    fftwf_free(out);
    fftwf_free(in);
    if (plan)
        cache.plans.emplace(length, plan);
    return plan;
}

} // namespace

extern "C" {

DSPB_FFTPROC* DSPB_FFTProcCreate(int32_t fftLength)
{
    if (fftLength < 2)
        return nullptr;
    fftwf_plan plan = planFor(fftLength);
    if (!plan)
        return nullptr;

    DSPB_FFTPROC* proc = new (std::nothrow) DSPB_FFTPROC;
    if (!proc)
        return nullptr;
    proc->length = fftLength;
    proc->plan = plan;
    proc->in = static_cast<float*>(fftwf_malloc(sizeof(float) * size_t(fftLength)));
    proc->out = static_cast<fftwf_complex*>(
        fftwf_malloc(sizeof(fftwf_complex) * (size_t(fftLength) / 2 + 1)));
    if (!proc->in || !proc->out) {
        DSPB_FFTProcDestroy(proc);
        return nullptr;
    }
    return proc;
}

void DSPB_FFTProcDestroy(DSPB_FFTPROC* proc)
{
    if (!proc)
        return;
    fftwf_free(proc->in);
    fftwf_free(proc->out);
    delete proc;
}

int32_t DSPB_FFTProcLength(const DSPB_FFTPROC* proc)
{
    return proc ? proc->length : 0;
}

int32_t DSPB_FFTProcExecutePSDEx(DSPB_FFTPROC* proc, const float* input, float* output,
                                 int32_t flags)
{
    if (!proc || !input || !output || flags != 0)
        return 0;
    const int32_t bins = proc->length / 2 + 1;
    // The whole input is copied before anything is written, so output may be input.
    std::memcpy(proc->in, input, sizeof(float) * size_t(proc->length));
    fftwf_execute_dft_r2c(proc->plan, proc->in, proc->out);
    for (int32_t k = 0; k < bins; ++k) {
        const float re = proc->out[k][0];
        const float im = proc->out[k][1];
        output[k] = re * re + im * im;
    }
    return bins;
}

} // extern "C"
