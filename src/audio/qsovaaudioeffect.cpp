#include "qsovaaudioeffect.h"
