/* The signal-processing library: FFT power spectra and analysis windows. C ABI, on FFTW3
 * (single precision); no other dependency.
 *
 * Windows are numbered 0 to 10 (DSPBWINDOWTYPE). Each has a name (DSPB_GetWindowName), which
 * DSPB_GetWindowType maps back without regard to case. Coefficients are symmetric over the
 * window size N (n = 0 .. N-1; a window of one coefficient is 1):
 *     0 rectangular       1
 *     1 hann              0.5 - 0.5 cos(2 pi n / (N-1))
 *     2 hamming           0.54 - 0.46 cos(2 pi n / (N-1))
 *     3 blackman          0.42 - 0.5 cos(2 pi n/(N-1)) + 0.08 cos(4 pi n/(N-1))
 *     4 bartlett          1 - |2n/(N-1) - 1|
 *     5 welch             1 - (2n/(N-1) - 1)^2
 *     6 blackman-harris   4-term, -92 dB side lobes: the default for spectrum display
 *     7 gaussian          exp(-0.5 ((n - (N-1)/2) / (sigma (N-1)/2))^2), sigma = 0.4
 *     8 kaiser            I0(beta sqrt(1 - (2n/(N-1) - 1)^2)) / I0(beta), beta = 8.6
 *     9 flat-top          5-term (SRS), for amplitude accuracy
 *    10 nuttall           4-term, continuous first derivative
 *
 * Decibel convention. DSPB_FFTProcExecutePSDEx gives |X[k]|^2 of the windowed block, with no
 * scaling. DSPB_GetWindowNormFactor gives (sum of the coefficients)^2 / 4, the |X[k]|^2 that a
 * sine of amplitude 1 centred on bin k produces through that window; DSPB_PSDtoDB divides by it.
 * So a full-scale sine at a bin centre reads 0 dB at its peak bin, whatever the window. */
#ifndef SOVA_DSP_H
#define SOVA_DSP_H

#include <stdint.h>

#include <sova/sovadsp_export.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef int32_t DSPBWINDOWTYPE;

#define DSPB_WINDOW_RECTANGULAR 0
#define DSPB_WINDOW_HANN 1
#define DSPB_WINDOW_HAMMING 2
#define DSPB_WINDOW_BLACKMAN 3
#define DSPB_WINDOW_BARTLETT 4
#define DSPB_WINDOW_WELCH 5
#define DSPB_WINDOW_BLACKMAN_HARRIS 6
#define DSPB_WINDOW_GAUSSIAN 7
#define DSPB_WINDOW_KAISER 8
#define DSPB_WINDOW_FLATTOP 9
#define DSPB_WINDOW_NUTTALL 10
#define DSPB_WINDOW_COUNT 11
#define DSPB_WINDOW_INVALID (-1) /* what DSPB_GetWindowType gives for an unknown name */

/* An FFT processor for one length. Plans are made once per length and shared by every processor
 * of that length; several processors may run at once in different threads, one thread per
 * processor. */
typedef struct DSPB_FFTPROC DSPB_FFTPROC;

/* A processor for real blocks of fftLength samples (any length from 2 that FFTW accepts, not
 * only powers of two). Null for a length below 2 or no memory. */
SOVADSP_EXPORT DSPB_FFTPROC* DSPB_FFTProcCreate(int32_t fftLength);

/* Frees a processor; null is ignored. */
SOVADSP_EXPORT void DSPB_FFTProcDestroy(DSPB_FFTPROC* proc);

/* The FFT length of a processor, 0 for null. */
SOVADSP_EXPORT int32_t DSPB_FFTProcLength(const DSPB_FFTPROC* proc);

/* Reads fftLength samples from input and writes the fftLength/2 + 1 power values |X[k]|^2 to
 * output (which may be input). flags must be 0. The number of values written; 0 on bad
 * arguments. */
SOVADSP_EXPORT int32_t DSPB_FFTProcExecutePSDEx(DSPB_FFTPROC* proc, const float* input,
                                                float* output, int32_t flags);

/* Writes size coefficients of the window into output. 1 on success, 0 for an unknown type,
 * a null output or a size below 1. */
SOVADSP_EXPORT int32_t DSPB_CreateWindow(DSPBWINDOWTYPE type, float* output, int32_t size);

/* (sum of the size coefficients of window)^2 / 4; a null window counts as rectangular, giving
 * size^2 / 4. 1.0 for a size below 1 or a zero sum. */
SOVADSP_EXPORT double DSPB_GetWindowNormFactor(const float* window, int32_t size);

/* For k = 0 .. fftLength/2: output[k] = 10 log10(input[k] / normFactor), floored at
 * -dynamicRange (also for zero and negative power). output may be input. flags must be 0. */
SOVADSP_EXPORT void DSPB_PSDtoDB(int32_t fftLength, const float* input, float* output,
                                 int32_t flags, double normFactor, double dynamicRange);

/* Name of a window ("blackman-harris"), null out of range. Static text. */
SOVADSP_EXPORT const char* DSPB_GetWindowName(DSPBWINDOWTYPE type);

/* Window of that name, without regard to case; DSPB_WINDOW_INVALID for an unknown name. */
SOVADSP_EXPORT DSPBWINDOWTYPE DSPB_GetWindowType(const char* name);

#ifdef __cplusplus
}
#endif

#endif
