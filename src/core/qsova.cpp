#include "qsova.h"

#include "qsovaiohandler.h"
#include "qtsovacoreversion.h"

#include <sova/blerror.h>

#include <cstdio>

namespace {

// Start-up counter. Plain on purpose: start-up and shut-down belong to the host's main thread.
int32_t __IsInitialized = 0;

char version_string[256];

} // namespace

extern "C" {

int QTSOVACORE_Initialize()
{
    if (__IsInitialized == 0) {
        // The counter stays at 1 even when registration fails: the result tells the host.
        __IsInitialized = 1;
        return QTSOVAIO_AddQFileHandler();
    }
    return ++__IsInitialized;
}

int QTSOVACORE_Finalize()
{
    if (__IsInitialized == 0)
        return 0;
    if (--__IsInitialized != 0)
        return __IsInitialized;
    return QTSOVAIO_DelQFileHandler();
}

void QtSovaCoreVersionNumber(int32_t* major, int32_t* minor, int32_t* patch, int32_t* build)
{
    if (major)
        *major = QTSOVACORE_VERSION_MAJOR;
    if (minor)
        *minor = QTSOVACORE_VERSION_MINOR;
    if (patch)
        *patch = QTSOVACORE_VERSION_PATCH;
    if (build)
        *build = QTSOVACORE_VERSION_BUILD;
}

const char* QtSovaCoreVersionString()
{
    // Formatted afresh on every call: concurrent callers write the same bytes.
    std::snprintf(version_string, sizeof version_string,
                  "libsovacore version %d.%d.%d.%d (built in %s)", QTSOVACORE_VERSION_MAJOR,
                  QTSOVACORE_VERSION_MINOR, QTSOVACORE_VERSION_PATCH, QTSOVACORE_VERSION_BUILD,
                  __DATE__);
    return version_string;
}

} // extern "C"

namespace QSova {

int initialize()
{
    return QTSOVACORE_Initialize();
}

int finalize()
{
    return QTSOVACORE_Finalize();
}

int minNumChannels()
{
    return 1;
}

int maxNumChannels()
{
    return 8;
}

int minSampleRate()
{
    return 10;
}

int maxSampleRate()
{
    return 500000;
}

QString lastErrorString()
{
    return QString::fromUtf8(BLERROR_LastMessage());
}

} // namespace QSova
