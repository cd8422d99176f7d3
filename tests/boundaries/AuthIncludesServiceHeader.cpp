#include "ostriolib/IOstrioService.h"
