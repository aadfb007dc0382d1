// One end of a SOCK_SEQPACKET connection that carries records of fixed size, each with at most one descriptor.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <utility>

namespace parlo::process {

class Descriptor {
 public:
  explicit Descriptor(int number = -1) : number_(number) {}
  Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(number_, other.number_);
    return *this;
  }
  ~Descriptor();
  int number() const { return number_; }

 private:
  int number_;
};

enum class Transfer : uint8_t {
  done,
  ended,      // the other side has gone
  timed_out,  // the other side has not answered within the limit
  bad,        // what has arrived is no record of this size
  no_memory,  // this side lacks memory or descriptors
};

class Channel {
 public:
  explicit Channel(Descriptor socket) : socket_(std::move(socket)) {}

  // Makes two connected ends. Returns false, with errno set, when the system refuses them.
  static bool connect(Descriptor& mine, Descriptor& other);
  // Limits how long a transfer waits; 0 is no limit. Where signals interrupt the transfer, it may take twice as long.
  void set_limit(uint32_t milliseconds);

  template <class Record>
  Transfer send(const Record& record, int descriptor = -1) const {
    return send(&record, sizeof record, descriptor, false);
  }
  // Times out at once when the other side has not read what was sent before.
  template <class Record>
  Transfer try_to_send(const Record& record) const {
    return send(&record, sizeof record, -1, true);
  }
  template <class Record>
  Transfer receive(Record& record) const {
    return receive(&record, sizeof record);
  }
  // Stores the descriptor that came with the record, or none.
  template <class Record>
  Transfer receive(Record& record, Descriptor& descriptor) const {
    return receive(&record, sizeof record, descriptor);
  }
  int number() const { return socket_.number(); }

 private:
  Transfer send(const void* record, size_t size, int descriptor, bool at_once) const;
  Transfer receive(void* record, size_t size) const;
  Transfer receive(void* record, size_t size, Descriptor& descriptor) const;

  ssize_t repeated(auto transfer) const;
  ssize_t received(auto receive) const;

  Descriptor socket_;
  std::chrono::milliseconds limit_{0};
};

}  // namespace parlo::process
