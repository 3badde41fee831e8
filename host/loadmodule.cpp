#include "host/loadmodule.h"

#include <dlfcn.h>
#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

namespace host {

bool loadModule(const std::string &home, Module &module, std::string &why) {
  std::string path = home + "/bin/libtape.so";
  struct stat status;
  if (stat(path.c_str(), &status) != 0) {
    why = "No module " + path + " (" + strerror(errno) + "): `zul init` puts it there";
    return false;
  }
  // It runs with our rights.
  if ((status.st_mode & S_IWOTH) != 0 || (status.st_uid != 0 && status.st_uid != geteuid())) {
    why =
        path +
        " may be changed by others: its owner must be root or this user, and only he may write it";
    return false;
  }
  void *library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!library) {
    why = std::string("Cannot load the module: ") + dlerror();
    return false;
  }
  module.tapetool = reinterpret_cast<int (*)(char *)>(dlsym(library, "tapetool"));
  module.mreplicate = reinterpret_cast<int (*)(char *)>(dlsym(library, "mreplicate"));
  if (module.tapetool && module.mreplicate) return true;
  why = path + " is no module of this system: it lacks " +
        (module.tapetool ? "mreplicate" : "tapetool");
  return false;
}

}  // namespace host
