// Headers that cannot be packed or unpacked. Both calls accept whatever they are given, and their
// callers do not rely on it: here they refuse, at a chosen call.
#include <unistd.h>

#include <thread>

#include "netsupport.h"

namespace {

int refused = 0;  // the call that is refused, counted from 1; 0 for none

bool refuses() {
  return refused > 0 && --refused == 0;
}

}  // namespace

// The linker leads the module's calls here; see the option of this program.
extern "C" int __real_packPackage(char *obuff, package *ipack);    // NOLINT
extern "C" int __real_unpackPackage(char *ibuff, package *opack);  // NOLINT
extern "C" int __wrap_packPackage(char *obuff, package *ipack) {   // NOLINT
  return refuses() ? -1 : __real_packPackage(obuff, ipack);
}
extern "C" int __wrap_unpackPackage(char *ibuff, package *opack) {  // NOLINT
  return refuses() ? -1 : __real_unpackPackage(ibuff, opack);
}

namespace {

using netsupport::Gatherer;
using netsupport::Pair;

class RefusedHeader : public netsupport::NetTest, public testing::WithParamInterface<const char *> {
 protected:
  void SetUp() override {
    NetTest::SetUp();
    site(std::string("behaviour = ") + GetParam() + "\nbehaviour.security = classic\n");
  }
  void TearDown() override {
    refused = 0;
    alarm(0);
    NetTest::TearDown();
  }
  bool classic() const { return GetParam() == std::string("classic"); }

  // The result of sendFile with its packing refused at a call, and what it has sent.
  long sendRefused(int call, std::string file, std::string *seen) {
    char *none[] = {nullptr, nullptr};
    Pair pair;
    std::thread reader([&] { *seen = netsupport::readAll(pair.far.get()); });
    refused = call;
    long result = sendFile(0, pair.near.get(), file.data(), none);
    refused = 0;
    pair.near.reset();
    reader.join();
    return result;
  }

  // The result of a dialogue over this list whose first header is refused.
  int offerRefused(const std::string &entries) {
    std::string list = path("var/tape/jobids/request.7");
    support::writeFile(list, entries + "end\n");
    Gatherer::Options options;
    options.before = [] { refused = 1; };
    Gatherer gatherer(home, list, options);
    EXPECT_EQ(gatherer.rawNext(), "");
    EXPECT_TRUE(gatherer.atEnd());
    return gatherer.result();
  }
};
INSTANTIATE_TEST_SUITE_P(, RefusedHeader, testing::Values("classic", "sound"),
                         [](const auto &given) { return std::string(given.param); });

TEST_P(RefusedHeader, EndsTheDialogueAtTheEndOfTheList) {
  EXPECT_EQ(offerRefused(""), -4);
  EXPECT_EQ(statusLog(),
            "Nothing more to backup/replicate\n"
            "WARNING:  3008  Package error\n");
}

TEST_P(RefusedHeader, EndsTheDialogueAtAFile) {
  support::writeFile(path("tmp/file"), "contents");
  EXPECT_EQ(offerRefused("0 " + path("tmp/file") + "\n"), -4);
  EXPECT_EQ(statusLog(), "WARNING:  3011  Package error\n");
}

TEST_P(RefusedHeader, IsNotSentAndNothingBehindIt) {
  std::string file = path("tmp/file"), seen;
  support::writeFile(file, "contents");
  for (int call : {1, 2}) {
    EXPECT_EQ(sendRefused(call, file, &seen), -4);
    EXPECT_EQ(seen, "");
  }
  std::string line = "WARNING:  3016  Cannot pack " + file + ", skipping.\n";
  EXPECT_EQ(statusLog(), line + line);
  EXPECT_EQ(sendRefused(0, file, &seen), PACK_SIZE + 8);
}

TEST_P(RefusedHeader, EndsALargeFileBehindItsFirstMegabyte) {
  std::string file = path("tmp/file"), seen;
  support::writeFile(file, support::pattern(PACK_CHUNK + 1));
  EXPECT_EQ(sendRefused(3, file, &seen), -4);
  EXPECT_EQ(seen.size(), static_cast<size_t>(PACK_SIZE + PACK_CHUNK));
  EXPECT_EQ(statusLog(), "WARNING:  3020  Cannot pack " + file + ", skipping.\n");
}

TEST_P(RefusedHeader, EndsALinkWhoseTargetIsReadAgain) {
  std::string link = path("tmp/link"), seen;
  ASSERT_EQ(symlink("/tmp", link.c_str()), 0);
  // Under "sound" the target was read with the header, which is packed once.
  EXPECT_EQ(sendRefused(2, link, &seen), classic() ? -4 : PACK_SIZE + 5);
  EXPECT_EQ(seen.size(), classic() ? 0u : PACK_SIZE + 5u);
  EXPECT_EQ(statusLog(),
            classic() ? "WARNING:  3025  Cannot pack " + link + ", skipping.\n" : std::string());
}

TEST_P(RefusedHeader, EndsTheDialogueOfAGatheringChild) {
  Pair pair;
  char raw[PACK_SIZE];
  package header{};
  header.magic = PACK_MAGIC;
  packPackage(raw, &header);
  ASSERT_EQ(write(pair.far.get(), raw, sizeof raw), PACK_SIZE);
  ipc slot{};
  refused = 1;
  EXPECT_EQ(clientHandshak(pair.near.get(), &slot), -3);
  EXPECT_EQ(statusLog(),
            "INFO:  Sending:  Next\n\n"
            "ERROR:  3213  Raw package format error\n");
  EXPECT_EQ(slot.items, 0u);
  EXPECT_EQ(support::readBytes(pair.far.get(), 5), "Next\n");
}

}  // namespace
