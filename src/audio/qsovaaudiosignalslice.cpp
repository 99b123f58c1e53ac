#include "qsovaaudiosignal.h"
