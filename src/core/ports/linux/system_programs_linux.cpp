#include "core/ports/system_programs.h"

namespace wharfy {

const SystemPrograms& platformSystemPrograms() {
    return SystemPrograms::forLinux();
}

}  // namespace wharfy
