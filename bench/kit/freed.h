// Deleters of C libraries' objects, for std::unique_ptr.
#pragma once

namespace bench {

/** Frees with the library's own function. */
template <auto Free>
struct Freed {
  template <typename T>
  void operator()(T* object) const {
    Free(object);
  }
};

}  // namespace bench
