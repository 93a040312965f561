// Mail addresses: which texts are one, and lists of them.
#pragma once

#include <string>
#include <string_view>
#include <vector>

// Returns true iff `text` is an address that needs no quoting anywhere, "camera@example.org": what
// may stand in a command and in a header line as it is. Letters beyond ASCII are not among it.
bool isMailAddress(std::string_view text);

// Takes apart a list of addresses, separated by commas; blanks around them and empty places don't
// count. Returns true iff there is at least one and all are addresses; otherwise `*problem` says
// what is wrong.
bool parseMailAddresses(std::string_view list, std::vector<std::string>* addresses,
                        std::string* problem);
