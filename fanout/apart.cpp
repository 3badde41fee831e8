// The processes that look up names and log in for a fan-out.
#include "fanout/apart.h"

#include <errno.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/process.h"

namespace fanout {

namespace {

// One byte pair of sockets carries both: the number, and the descriptor beside it.
struct Envelope {
  int value;
  iovec part;
  alignas(cmsghdr) char room[CMSG_SPACE(sizeof(int))];
  msghdr message;

  Envelope() {
    memset(static_cast<void *>(this), 0, sizeof *this);
    part = {&value, sizeof value};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = room;
    message.msg_controllen = sizeof room;
  }
};

}  // namespace

bool startHelper(Helper *helper) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return false;
  pid_t pid = base::forkFlushed();
  close(ends[pid == 0 ? 0 : 1]);
  if (pid < 0) close(ends[0]);
  if (pid >= 0) *helper = {pid, ends[pid == 0 ? 1 : 0]};
  return pid >= 0;
}

void giveAnswer(const Helper &helper, int value, int sd) {
  Envelope envelope;
  envelope.value = value;
  if (sd >= 0) {
    cmsghdr *beside = CMSG_FIRSTHDR(&envelope.message);
    beside->cmsg_level = SOL_SOCKET;
    beside->cmsg_type = SCM_RIGHTS;
    beside->cmsg_len = CMSG_LEN(sizeof sd);
    memcpy(CMSG_DATA(beside), &sd, sizeof sd);
  } else {
    envelope.message.msg_controllen = 0;
  }
  (void)!sendmsg(helper.end, &envelope.message, MSG_NOSIGNAL);
  _exit(0);
}

Answer takeAnswer(Helper *helper) {
  Answer answer = {false, 0, -1};
  Envelope envelope;
  ssize_t got = recvmsg(helper->end, &envelope.message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
  if (got == sizeof envelope.value) {
    answer = {true, envelope.value, -1};
    const cmsghdr *beside = CMSG_FIRSTHDR(&envelope.message);
    if (beside && beside->cmsg_type == SCM_RIGHTS)
      memcpy(&answer.sd, CMSG_DATA(beside), sizeof answer.sd);
  } else {
    kill(helper->pid, SIGKILL);
  }
  close(helper->end);
  while (waitpid(helper->pid, nullptr, 0) < 0 && errno == EINTR) {
  }
  *helper = {};
  return answer;
}

}  // namespace fanout
