// How the two processes of the example talk: requests and answers over one socket, one at a time.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

enum class op : std::uint32_t { load, batch, commit, close, cancel, update, sync, query, count };

struct message {
  op what{};
  std::int32_t status = 0;  // of an answer
  std::int32_t to = 0;      // the destination of a batch or commit
  std::uint64_t id = 0;     // a doc id, or a number
  std::uint32_t term[3] = {0, 0, 0};
  std::uint32_t shard = 0;
  std::uint32_t bytes = 0;  // of the text that follows
};

// Either end gives up when the other is gone.
inline void transfer(int socket, char *bytes, std::size_t count, bool sends) {
  while (count > 0) {
    const ssize_t done =
        sends ? send(socket, bytes, count, MSG_NOSIGNAL) : recv(socket, bytes, count, 0);
    if (done <= 0) _exit(1);
    bytes += done;
    count -= static_cast<std::size_t>(done);
  }
}

inline void put(int socket, message head, std::string text = {}) {
  head.bytes = static_cast<std::uint32_t>(text.size());
  transfer(socket, reinterpret_cast<char *>(&head), sizeof head, true);
  transfer(socket, text.data(), text.size(), true);
}

inline message get(int socket, std::string &text) {
  message head;
  transfer(socket, reinterpret_cast<char *>(&head), sizeof head, false);
  text.resize(head.bytes);
  transfer(socket, text.data(), text.size(), false);
  return head;
}
