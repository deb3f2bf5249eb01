// Implemented in progress.
#include "engine/Engine.h"
