/* The foundation library: I/O layer, option strings, text encodings, string pool, lists,
 * memory descriptors, settings store, ini files, log and errors. C ABI; beyond the C++
 * runtime it depends on libsodium only (for secrets). */
#ifndef SOVA_FOUNDATION_H
#define SOVA_FOUNDATION_H

#include <sova/blerror.h>
#include <sova/blio.h>
#include <sova/blinifile.h>
#include <sova/bllist.h>
#include <sova/bllog.h>
#include <sova/blsettings.h>
#include <sova/blstring.h>

#endif
