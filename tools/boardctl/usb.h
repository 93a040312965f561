// The disk at /usb of the programs that run in a board.
#pragma once

#include <string>

// Plugs the disk in again, unplugs it, or puts a full one of `size` bytes (in memory) in its place,
// for every program that runs in the board in `folder`. Returns true on success; otherwise `*error`
// says why not. Needs no privileges beyond those of the user who started the board.
bool plugUsb(const std::string& folder, std::string* error);
bool unplugUsb(const std::string& folder, std::string* error);
bool fillUsb(const std::string& folder, long size, std::string* error);
