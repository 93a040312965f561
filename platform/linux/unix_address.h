// Addresses of Unix sockets, however long their paths.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

// The address of one socket file. A kernel takes 107 characters; a longer path is reached through
// a descriptor of its folder. Owns that descriptor until clear(); no destructor, so that one may
// live in static storage and serve to the last instruction of the process. Needs the C library
// alone. Not synchronised.
struct UnixAddress {
  // Sets the address to `path`. Returns true on success, otherwise `errno` says why not.
  bool set(const char* path);
  // Gives the folder's descriptor back.
  void clear();

  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&address); }
  socklen_t size() const { return sizeof address; }

  sockaddr_un address;
  int folder = -1;  // descriptor of the folder, -1 when the path is short enough
};
