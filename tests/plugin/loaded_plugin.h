// The shared library, loaded by its file; functions by name.
//
// Thread rule: one object at a time; the functions' own rules hold.
#pragma once

#include <dlfcn.h>

#include <stdexcept>
#include <string>

class LoadedPlugin {
 public:
  LoadedPlugin() : library_(dlopen(ZEL_PLUGIN_FILE, RTLD_NOW | RTLD_LOCAL)) {
    if (library_ == nullptr) throw std::runtime_error(dlerror());
  }
  ~LoadedPlugin() { dlclose(library_); }
  LoadedPlugin(const LoadedPlugin&) = delete;
  LoadedPlugin& operator=(const LoadedPlugin&) = delete;

  // Calls zelRtcSpeechToText<name>; the caller knows the types.
  template <typename Result, typename... Arguments>
  Result call(const std::string& name, Arguments... arguments) const {
    void* function = dlsym(library_, ("zelRtcSpeechToText" + name).c_str());
    if (function == nullptr) throw std::runtime_error("no function " + name);
    return reinterpret_cast<Result (*)(Arguments...)>(function)(arguments...);
  }

 private:
  void* library_;
};
