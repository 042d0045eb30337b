// What people and the controller may ask the daemon for.
#pragma once

#include <functional>
#include <string>

struct RequestSettings {
    std::string firmwareFile;  // empty: there is none to check
    bool control = false;      // whether "persist" and "reboot" are obeyed
};

// The work behind a text, empty for a text that asks for nothing:
//   run TOOL ARGUMENT...  one of a few harmless tools
//   token TOKEN           whether the token is valid, as kest_avclient says
//   persist               have kest_ctlserver save the configuration
//   reboot                have kest_ctlserver reboot the device
//   firmware              look at the firmware file
// Its result is a text that tells how it went. The work blocks for as long as tool or daemon take
// (10 s for a token, 20 s and more for the control daemon): never call it from an event loop.
std::function<std::string()> workFor(const std::string& text, const RequestSettings& settings);

bool asksForTool(const std::string& text);

// The text as it may be printed: without the token.
std::string printable(const std::string& text);
