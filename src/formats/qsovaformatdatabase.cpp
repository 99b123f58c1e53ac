#include "qsovaformatdatabase.h"
