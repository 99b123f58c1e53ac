#include "qsovavad.h"
