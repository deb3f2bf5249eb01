#include "Quirelle"
