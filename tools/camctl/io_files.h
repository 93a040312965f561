// The value files of the camera's inputs and outputs, as far as a tool may play their hardware.
#pragma once

// Sets the digital input, or the privacy switch. Returns true on success; otherwise says on
// standard error what went wrong.
bool setInput(bool on);
bool setPrivacy(bool on);
