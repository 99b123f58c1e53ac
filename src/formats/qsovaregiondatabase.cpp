#include "qsovaregiondatabase.h"
