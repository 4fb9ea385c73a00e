// Letting Ctrl-C into long scans. Code that runs in C++ between two bytecodes never
// reaches the interpreter's own signal check, so a scan over a huge text, or over
// millions of lines or rows, asks for it itself: a countdown of work units, and
// PyErr_CheckSignals once it runs out.
//
// A unit is about one code point scanned; a line, row or record made costs a fixed number
// more (kPerItem), for the objects it makes. With kEvery units between checks a scan
// looks every few MB of text or every ~64k lines, a few milliseconds of work, and the
// check itself (a flag read when no signal is pending) is off the per-line path.
#pragma once

#include "module/owned.hpp"

#include <cstddef>

namespace velmora::py {

class SignalCountdown {
  public:
    static constexpr size_t kEvery = size_t{1} << 22;
    static constexpr size_t kPerItem = 64;

    // After `work` units: false, with the error that a signal's handler raised (say
    // KeyboardInterrupt) set, when the scan must stop.
    bool pass(size_t work) {
        if (work < left_) {
            left_ -= work;
            return true;
        }
        left_ = kEvery;
        return PyErr_CheckSignals() == 0;
    }

    // After one item (line, row, record) of `length` code points.
    bool pass_item(size_t length) { return pass(length + kPerItem); }

  private:
    size_t left_ = kEvery;
};

}  // namespace velmora::py
