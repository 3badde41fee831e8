// Several segments handed to the kernel in one call. In the data sender of a sound run.
//
// On the network they are the same single datagrams; what is saved is the way through the kernel,
// which costs more than the network does. A receiver may get them in one piece too.
#pragma once
#include <netinet/in.h>
#include <zul/mrepl.h>

namespace mrepl {

class Burst {
 public:
  // All of them in one piece stay below the longest datagram.
  static constexpr int kMost = 32;

  void clear() { count_ = 0; }
  int count() const { return count_; }
  mslot &at(int index) { return *slots_[index]; }
  void add(mslot *slot) { slots_[count_++] = slot; }
  // Sends them in their order. How many went out; when none did, errno says why.
  int send(int sd, const sockaddr_in &to);

 private:
  bool sendWhole(int sd, const sockaddr_in &to);
  int sendSingly(int sd, const sockaddr_in &to);

  int count_;
  bool refused_;  // this socket takes no pieces of several datagrams
  mslot *slots_[kMost];
};

}  // namespace mrepl
