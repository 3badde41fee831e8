#include "mrepl/burst.h"

#include <errno.h>
#include <netinet/udp.h>
#include <string.h>
#include <sys/socket.h>

namespace mrepl {

namespace {

iovec pieceOf(mslot *slot) {
  return {&slot->seg, sizeof slot->seg};
}

msghdr messageTo(const sockaddr_in &to, iovec *parts, size_t count) {
  msghdr message{};
  message.msg_name = const_cast<sockaddr_in *>(&to);
  message.msg_namelen = sizeof to;
  message.msg_iov = parts;
  message.msg_iovlen = count;
  return message;
}

}  // namespace

// The kernel cuts the piece into datagrams where the network begins.
bool Burst::sendWhole(int sd, const sockaddr_in &to) {
  iovec parts[kMost];
  for (int at = 0; at < count_; at++) parts[at] = pieceOf(slots_[at]);
  msghdr message = messageTo(to, parts, static_cast<size_t>(count_));
  uint16_t length = sizeof(mseg);
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof length)] = {};
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  cmsghdr *header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = SOL_UDP;
  header->cmsg_type = UDP_SEGMENT;
  header->cmsg_len = CMSG_LEN(sizeof length);
  memcpy(CMSG_DATA(header), &length, sizeof length);
  return sendmsg(sd, &message, 0) >= 0;
}

int Burst::sendSingly(int sd, const sockaddr_in &to) {
  iovec parts[kMost];
  mmsghdr messages[kMost]{};
  for (int at = 0; at < count_; at++) {
    parts[at] = pieceOf(slots_[at]);
    messages[at].msg_hdr = messageTo(to, &parts[at], 1);
  }
  int sent = sendmmsg(sd, messages, static_cast<unsigned>(count_), 0);
  return sent < 0 ? 0 : sent;
}

int Burst::send(int sd, const sockaddr_in &to) {
  if (count_ == 0) return 0;
  if (count_ > 1 && !refused_) {
    if (sendWhole(sd, to)) return count_;
    // Interfaces without checksums of their own, and ones whose datagrams are too short for ours.
    refused_ = errno == EIO || errno == EINVAL || errno == EMSGSIZE || errno == EOPNOTSUPP;
    if (!refused_) return 0;
  }
  return sendSingly(sd, to);
}

}  // namespace mrepl
