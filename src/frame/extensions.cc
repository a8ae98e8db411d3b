#include "frame/extensions.h"

unsigned extensions = 0;
