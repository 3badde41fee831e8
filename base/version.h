// The version of the module, as "TAPE version" and a multicast check tell it.
#pragma once

namespace base {

constexpr const char *kModuleVersion = "0.34";

}  // namespace base
