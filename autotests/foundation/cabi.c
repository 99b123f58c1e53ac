/* The foundation headers are a C ABI: they must compile as strict C11 and link from C. */
#include <sova/foundation.h>

#include <stdio.h>
#include <string.h>

int main(void)
{
    BLIO_OpenOptions options;
    if (!BLIO_ParseOpenDescriptor("rw[buffered=0]", &options) || options.Mode != BLIO_OPEN_READWRITE
        || options.Buffered != 0) {
        fputs("descriptor not parsed from C\n", stderr);
        return 1;
    }
    if (BLSTRING_GetIntegerValueFromString("sr=44100,nc=2", "nc", 0) != 2) {
        fputs("option reader failed from C\n", stderr);
        return 1;
    }
    if (BLIO_Open("nosuch://x", "r") != NULL || BLERROR_LastCode() != BLERR_UNKNOWN_SCHEME
        || strstr(BLERROR_LastMessage(), "nosuch") == NULL) {
        fputs("unknown scheme not reported from C\n", stderr);
        return 1;
    }
    return 0;
}
