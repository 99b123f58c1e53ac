#include "qsovaaudioselection.h"
