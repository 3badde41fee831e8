// Requests of any content to a data sender: they flag slots of the ring and nothing else, a sound
// sender only such as hold what was sent and is kept.
#include <netinet/in.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zul/host.h>
#include <zul/mrepl.h>

#include "base/site.h"
#include "base/text.h"
#include "fuzzhome.h"
#include "mrepl/sending.h"

namespace {

alignas(8) char area[MR_SEND_AREA];
int pair[2];

void prepare(bool sound) {
  FILE *site = fopen(base::HomePath("etc/ZULsite"), "we");
  if (!site || fputs(sound ? "behaviour.multicast = sound\n" : "behaviour = classic\n", site) < 0)
    abort();
  fclose(site);
  base::forgetSite();
  mrepl::runWord = sound ? mrepl::kReports | 1 << 16 : 0;
  auto *ctrl = reinterpret_cast<msendctrl *>(area);
  auto *ring = reinterpret_cast<mslot *>(area + sizeof(msendctrl));
  *ctrl = msendctrl{};
  for (int at = 0; at < MR_SEND_SLOTS; at++) ring[at].flag = 0;
  ctrl->ringSlots = MR_SEND_SLOTS;
  ctrl->waitTime = 50;
  mrepl::storeNumber(ctrl->filledHigh, ctrl->filledLow, 0x100000040);
  mrepl::storeNumber(ctrl->lastSentHigh, ctrl->lastSentLow, 0x100000030);
  mrepl::storeNumber(ctrl->freeTillHigh, ctrl->freeTillLow, 0xfffffff0);
  mrepl::sending.ctrl = ctrl;
  mrepl::sending.ring = ring;
  mrepl::sending.requestSd = pair[0];
  mrepl::sending.wanted.clear();
  mrepl::sending.receivers.begin();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (ZULhome[0] == '\0') {
    fuzz::makeHome({"etc"});
    fplog = nullptr;
    if (socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, pair) != 0) abort();
  }
  if (size < 1) return 0;
  bool sound = (data[0] & 1) != 0;
  prepare(sound);
  for (size_t at = 1; at < size;) {
    // Now and then a datagram is too short or too long.
    size_t length = data[at] == 0xff ? 17 : data[at] == 0xfe ? 15 : sizeof(mreq);
    if (at + length > size) length = size - at;
    if (send(pair[1], data + at, length, MSG_DONTWAIT) < 0) break;
    at += length;
    mrepl::takeRequests();
    char answer[64];
    while (recv(pair[1], answer, sizeof answer, MSG_DONTWAIT) > 0) {
    }
  }
  mrepl::Sending &sending = mrepl::sending;
  if (!sound) return 0;
  for (int at = 0; at < MR_SEND_SLOTS; at++) {
    bool kept = at <= 0x30 || at > 0x3ff0;
    if (sending.ring[at].flag != 0 && !kept) abort();
  }
  if (sending.ctrl->waitTime < 48 || sending.receivers.needed() == 0) abort();
  return 0;
}
