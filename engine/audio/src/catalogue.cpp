#include "backend.h"
