// The stores' bytes, written by hand: what we read of them, and that we write the same.
#include <support.h>
#include <zul/tape.h>

namespace {

// "0a 0b" as bytes; a part in quotes stands for its characters, and "*N" repeats the byte before it
// to N of them.
std::string bytes(const std::string &text) {
  std::string result;
  for (size_t at = 0; at < text.size();) {
    if (isspace(static_cast<unsigned char>(text[at]))) {
      at++;
    } else if (text[at] == '\'') {
      size_t end = text.find('\'', at + 1);
      result += text.substr(at + 1, end - at - 1);
      at = end + 1;
    } else if (text[at] == '*') {
      size_t end = at + 1;
      while (end < text.size() && isdigit(static_cast<unsigned char>(text[end]))) end++;
      result.append(std::stoul(text.substr(at + 1, end - at - 1)) - 1, result.back());
      at = end;
    } else {
      result += static_cast<char>(std::stoi(text.substr(at, 2), nullptr, 16));
      at += 2;
    }
  }
  return result;
}

class Golden : public support::HomeTest, public ::testing::WithParamInterface<const char *> {
 protected:
  void SetUp() override {
    HomeTest::SetUp();
    site(std::string("behaviour = ") + GetParam() + "\n");
  }
  std::string hex(const std::string &relative) {
    std::string text;
    char digits[4];
    for (unsigned char byte : support::readFile(path(relative))) {
      snprintf(digits, sizeof digits, "%02x ", byte);
      text += digits;
    }
    return text;
  }
  void expectFile(const std::string &relative, const std::string &wanted) {
    support::writeFile(path("tmp/wanted"), wanted);
    EXPECT_EQ(hex(relative), hex("tmp/wanted"));
  }
};
INSTANTIATE_TEST_SUITE_P(Behaviour, Golden, ::testing::Values("classic", "sound"),
                         [](const auto &behaviour) { return std::string(behaviour.param); });

// Job 7, group 1, retention 86400 (0x15180), drive 2, fifth 3, name "daily".
const char *const kJob =
    "00 00 00 00 "     //   0 reserved
    "07 00 00 00 "     //   4 job
    "01 00 00 00 "     //   8 group
    "80 51 01 00 "     //  12 retention
    "02 00 00 00 "     //  16 drive
    "03 00 00 00 "     //  20 fifth
    "00 "              //  24 reserved
    "'daily' 00*251 "  //  25 name, 256 bytes
    "00*15 "           // 281 reserved
    "00*220";          // 296 reserved
// Job -9998 (0xffffd8f2) under a name that fills its field.
const char *const kFullName =
    "00*4 f2 d8 ff ff ff ff ff ff 00 00 00 80 ff ff ff 7f 00*4 00 'n'*256 00*15 00*220";

TEST_P(Golden, JobIndex) {
  ASSERT_EQ(bytes(kJob).size(), 516u);
  ASSERT_EQ(bytes(kFullName).size(), 516u);
  std::string entry = "7:1:86400:2:3:0:daily";
  support::captureStderr([&] { EXPECT_EQ(addJobids(entry.data()), 0); });
  expectFile("var/tape/jobids/index", bytes(kJob));

  support::writeFile(path("var/tape/jobids/index"), bytes(kFullName) + bytes(kJob));
  jobrec job;
  ASSERT_EQ(readJobid(7, &job), 0);
  EXPECT_EQ(job.job, 7);
  EXPECT_EQ(job.group, 1);
  EXPECT_EQ(job.retention, 86400);
  EXPECT_EQ(job.drive, 2);
  EXPECT_EQ(job.fifth, 3);
  EXPECT_STREQ(job.name, "daily");
  EXPECT_EQ(
      support::captureStderr([] { EXPECT_EQ(getJobids(), 0); }),
      "-9998:-1:-2147483648:2147483647:0:0:" + std::string(256, 'n') + "\n7:1:86400:2:3:0:daily\n");
}

// Job 5, group 1, conflict mode 8, owner 500 (0x1f4), group id 600 (0x258), directory policy 28672
// + 0755 (0x71ed), file policy 32768 + 0644 (0x81a4), eighth 9, flags 2.
const char *const kReplication =
    "00 00 00 00 "     //   0 reserved
    "05 00 00 00 "     //   4 job
    "01 00 00 00 "     //   8 group
    "08 00 00 00 "     //  12 conflict mode
    "f4 01 00 00 "     //  16 owner
    "58 02 00 00 "     //  20 group id
    "ed 71 00 00 "     //  24 directory policy
    "a4 81 00 00 "     //  28 file policy
    "09 00 00 00 "     //  32 eighth
    "'web' 00*253 "    //  36 name, 256 bytes
    "'/dest' 00*251 "  // 292 destination, 256 bytes
    "02 00 00 00 "     // 548 flags
    "00*28";           // 552 reserved

TEST_P(Golden, ReplicationJobs) {
  ASSERT_EQ(bytes(kReplication).size(), 580u);
  std::string entry = "5:1:8:500:600:29165:33188:9:2:anything:/dest:web";
  support::captureStderr([&] { EXPECT_EQ(addRepids(entry.data()), 0); });
  expectFile("var/tape/jobids/repljobs", bytes(kReplication));

  support::writeFile(path("var/tape/jobids/repljobs"), bytes(kReplication));
  reprec job;
  ASSERT_EQ(readRepid(5, &job), 0);
  EXPECT_EQ(job.conflict, 8);
  EXPECT_EQ(job.owner, 500);
  EXPECT_EQ(job.grp, 600);
  EXPECT_EQ(job.dirpolicy, 070755);
  EXPECT_EQ(job.filepolicy, 0100644);
  EXPECT_EQ(job.eighth, 9);
  EXPECT_EQ(job.flags, 2);
  EXPECT_STREQ(job.dest, "/dest");
  EXPECT_STREQ(job.name, "web");
  EXPECT_EQ(support::captureStderr([] { EXPECT_EQ(getRepids(), 0); }),
            "5:1:8:500:600:29165:33188:9:2:reserved:/dest:web\n");
}

TEST_P(Golden, TextStores) {
  std::string drive = "0:lto:/dev/nst0:a:b", group = "1:alpha,beta:web", entry = "7 /etc/",
              transform = "5 /ab>/cd";
  support::captureStderr([&] {
    EXPECT_EQ(addDrive(drive.data()), 0);
    EXPECT_EQ(addTapeGroup(group.data()), 0);
    EXPECT_EQ(addBackupList(entry.data()), 0);
    EXPECT_EQ(addTrans(transform.data()), 0);
  });
  expectFile("etc/tapedevs",
             bytes("30 3a 6c 74 6f 3a 2f 64 65 76 2f 6e 73 74 30 3a 61 3a 62 3a 0a"));
  expectFile("var/tape/jobids/group", bytes("31 3a 61 6c 70 68 61 2c 62 65 74 61 3a 77 65 62 0a"));
  expectFile("var/tape/jobids/7", bytes("2f 65 74 63 2f 0a"));
  expectFile("var/tape/jobids/trans.5", bytes("2f 61 62 3e 2f 63 64 0a"));
}

}  // namespace
