// The shared library, loaded by its file; functions by name.
//
// Thread rule: one object at a time; the functions' own rules hold.
#pragma once

#ifdef _WIN32
#include <windows.h>
#else
#include <dlfcn.h>
#endif

#include <stdexcept>
#include <string>

class LoadedPlugin {
 public:
  LoadedPlugin() : library_(Load()) {
    if (library_ == nullptr) throw std::runtime_error("cannot load " ZEL_PLUGIN_FILE);
  }
  ~LoadedPlugin() { Unload(library_); }
  LoadedPlugin(const LoadedPlugin&) = delete;
  LoadedPlugin& operator=(const LoadedPlugin&) = delete;

  // Calls zelRtcSpeechToText<name>; the caller knows the types.
  template <typename Result, typename... Arguments>
  Result call(const std::string& name, Arguments... arguments) const {
    void* function = Find(library_, ("zelRtcSpeechToText" + name).c_str());
    if (function == nullptr) throw std::runtime_error("no function " + name);
    return reinterpret_cast<Result (*)(Arguments...)>(function)(arguments...);
  }

 private:
#ifdef _WIN32
  static void* Load() {
    return LoadLibraryA(ZEL_PLUGIN_FILE);
  }
  static void Unload(void* library) {
    FreeLibrary(static_cast<HMODULE>(library));
  }
  static void* Find(void* library, const char* name) {
    return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(library), name));
  }
#else
  static void* Load() {
    return dlopen(ZEL_PLUGIN_FILE, RTLD_NOW | RTLD_LOCAL);
  }
  static void Unload(void* library) {
    dlclose(library);
  }
  static void* Find(void* library, const char* name) {
    return dlsym(library, name);
  }
#endif

  void* library_;
};
