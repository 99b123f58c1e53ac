#include "qsovaaudioformat.h"
