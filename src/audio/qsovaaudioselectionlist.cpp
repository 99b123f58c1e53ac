#include "qsovaaudioselectionlist.h"
