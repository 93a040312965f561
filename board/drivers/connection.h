// A device node's connection with the hardware: protocol.h as the driver speaks it.
#pragma once

#include <cstddef>

// Connects with the hardware of the board and opens the node at `path` there. Returns the socket,
// or -1 with `errno`: ENXIO when no hardware runs, what the hardware answers when it has no such
// node.
// `closeOnExec`: of the descriptor.
int connectNode(const char* path, bool closeOnExec);

// The system calls of a node. As their namesakes, with `errno`: EIO once the hardware has gone. A
// signal that comes before the reply changes nothing. One call at a time on one connection.
long readNode(int fd, void* buffer, std::size_t size);
int controlNode(int fd, unsigned request, void* argument);
// `owner`: process or, negative, process group that gets SIGIO; 0: nobody.
void setNodeOwner(int fd, int owner);

// Writes the path of `inside` on the board into `path`, which has PATH_MAX bytes: the board is the
// root, or the folder that VS_BOARD names in the environment. Returns `path`.
const char* onBoard(const char* inside, char* path);
