#include "qsovachannelmultiplexer.h"
