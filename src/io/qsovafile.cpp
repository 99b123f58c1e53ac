#include "qsovafile.h"
