/* The foundation library: I/O layer, option strings, text encodings, string pool, lists,
 * memory descriptors, log and errors. C ABI, no dependencies beyond the C++ runtime. */
#ifndef SOVA_FOUNDATION_H
#define SOVA_FOUNDATION_H

#include <sova/blerror.h>
#include <sova/blio.h>
#include <sova/bllist.h>
#include <sova/bllog.h>
#include <sova/blstring.h>

#endif
