// Owned: one strong reference to a Python object, released when it goes out of scope.
// Every new reference the binding takes lives in one of these until it is handed to
// CPython (release()) or dropped, so no error path can leak it.
#pragma once

#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <utility>

namespace velmora::py {

class Owned {
  public:
    Owned() noexcept = default;
    // Takes over a new reference (possibly null, when the call that made it failed).
    explicit Owned(PyObject* steal) noexcept : ptr_(steal) {}
    static Owned borrow(PyObject* object) noexcept { return Owned(Py_XNewRef(object)); }

    Owned(const Owned&) = delete;
    Owned& operator=(const Owned&) = delete;
    Owned(Owned&& other) noexcept : ptr_(std::exchange(other.ptr_, nullptr)) {}
    Owned& operator=(Owned&& other) noexcept {
        if (this != &other) Py_XSETREF(ptr_, std::exchange(other.ptr_, nullptr));
        return *this;
    }
    ~Owned() { Py_XDECREF(ptr_); }

    PyObject* get() const noexcept { return ptr_; }
    explicit operator bool() const noexcept { return ptr_ != nullptr; }
    // Hands the reference to the caller (for a return value or a stealing API).
    [[nodiscard]] PyObject* release() noexcept { return std::exchange(ptr_, nullptr); }

  private:
    PyObject* ptr_ = nullptr;
};

}  // namespace velmora::py
