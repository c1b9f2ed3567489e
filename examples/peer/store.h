#pragma once

#include <string>

// Runs the second store on a directory of its own until the other end of the socket closes.
[[noreturn]] void serve(const std::string &root, int socket);
