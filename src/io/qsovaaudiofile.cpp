#include "qsovaaudiofile.h"
