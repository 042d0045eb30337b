/// @file
/// Asks the camera's IAV video driver for its state.
///
/// An object belongs to one thread at a time; the static functions keep nothing.
#pragma once

#include <kest/utils/api.h>

/// Owns the driver's descriptor from a successful init() on.
class KEST_API IavState {
  public:
    /// States that isState() can be asked for, to be combined with `|`.
    enum StateMask : int {
        State0 = 0x1,  ///< the driver says 0
        State1 = 0x2,  ///< the driver says 1
        State2 = 0x4,  ///< the driver says 2
    };

    IavState();

    /// Closes the descriptor, if any.
    ~IavState();

    IavState(const IavState&) = delete;
    IavState& operator=(const IavState&) = delete;

    /// Opens "/dev/iav", in place of what an earlier call opened.
    /// @return false after one log line when it does not open. Descriptor 0, which only a process
    ///         without standard input gets, counts as a failure by intention; it is closed again.
    bool init();

    /// Whether the driver is in one of the states of `mask`. States that no bit stands for are in
    /// no mask.
    /// @param fd  the driver's descriptor; stays the caller's.
    /// @return false after one log line when the driver cannot be asked, whatever the mask.
    static bool isState(int fd, int mask);
    /// The same with the descriptor of init().
    bool isState(int mask) const;

    /// Reserved: always true, without asking the driver; `flip` and `mirror` stay as they are.
    static bool orientation(int fd, bool& flip, bool& mirror);
    bool orientation(bool& flip, bool& mirror) const;

  private:
    int fd_ = -1;
};
