#include "steps.h"

namespace steps {

Memory *memory = nullptr;
void (*stepHook)(const char *name) = nullptr;

} // namespace steps
