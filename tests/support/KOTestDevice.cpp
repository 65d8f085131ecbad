#include "KOTestDevice.h"
