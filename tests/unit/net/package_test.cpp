// The header and its stream form, field by field.
#include <string.h>

#include "netsupport.h"

namespace {

class Package : public netsupport::NetTest {
 protected:
  Package() {
    memset(static_cast<void *>(&record), 0, sizeof record);
    record.magic = PACK_MAGIC;
    record.type = 2;
    strcpy(record.filename, "/etc/hosts");
    record.usrid = 1000;
    record.grpid = 0xfffffffeU;
    record.mode = 0100644;
    record.mtime = 0x0102030405060708ULL;
    record.atime = 0x1112131415161718ULL;
    record.size = 0x100000001ULL;
    record.sequence = 3;
    record.unused1 = PACK_FILLER;
    record.unused2 = -2;
    strcpy(record.fromhost, "client1");
  }
  std::string packed() {
    std::string raw(PACK_SIZE, '\xee');
    EXPECT_EQ(packPackage(raw.data(), &record), 0);
    return raw;
  }
  std::string at(size_t offset, size_t length) { return packed().substr(offset, length); }
  package record;
};

std::string bytes(std::initializer_list<int> values) {
  std::string text;
  for (int value : values) text += static_cast<char>(value);
  return text;
}

TEST_F(Package, BeginsWithItsMagicAndKind) {
  EXPECT_EQ(at(0, 7), bytes({'Z', 'u', 'L', '!', 0, 0, 2}));
}

TEST_F(Package, CarriesItsNumbersBigEndian) {
  EXPECT_EQ(at(264, 4), bytes({0, 0, 0x03, 0xe8}));
  EXPECT_EQ(at(268, 4), bytes({0xff, 0xff, 0xff, 0xfe}));
  EXPECT_EQ(at(272, 4), bytes({0, 0, 0x81, 0xa4}));
  EXPECT_EQ(at(276, 4), bytes({5, 6, 7, 8}));
  EXPECT_EQ(at(280, 4), bytes({0x15, 0x16, 0x17, 0x18}));
  EXPECT_EQ(at(284, 4), bytes({0, 0, 0, 1}));
  EXPECT_EQ(at(288, 4), bytes({0, 0, 0, 3}));
  EXPECT_EQ(at(292, 4), bytes({0xa5, 0xa5, 0xa5, 0xa5}));
  EXPECT_EQ(at(296, 4), bytes({0xff, 0xff, 0xff, 0xfe}));
}

TEST_F(Package, CarriesTheRecordsOwnBytesBehindItsFields) {
  EXPECT_EQ(at(300, 4), bytes({1, 0, 0, 0}));  // high word of the size
  EXPECT_EQ(at(304, 12), bytes({3, 0, 0, 0, 0xa5, 0xa5, 0xa5, 0xa5, 0xfe, 0xff, 0xff, 0xff}));
  EXPECT_EQ(at(316, 8), std::string("client1\0", 8));
  EXPECT_EQ(at(380, 140), std::string(140, '\0'));
}

TEST_F(Package, EndsInZerosWhateverTheRecordsTailHolds) {
  memset(reinterpret_cast<char *>(&record) + 516, 0x55, 4);
  EXPECT_EQ(at(516, 4), std::string(4, '\0'));
}

TEST_F(Package, CanBePackedAndUnpackedInPlace) {
  std::string apart = packed();
  char raw[PACK_SIZE];
  memcpy(raw, &record, sizeof raw);
  packPackage(raw, reinterpret_cast<package *>(raw));
  EXPECT_EQ(std::string(raw, sizeof raw), apart);
  unpackPackage(raw, reinterpret_cast<package *>(raw));
  package inPlace;
  memcpy(static_cast<void *>(&inPlace), raw, sizeof inPlace);
  EXPECT_EQ(inPlace.usrid, record.usrid);
  EXPECT_STREQ(inPlace.filename, record.filename);
}

TEST_F(Package, ComesBackWithTimesAndSizeCutToTheirLowWords) {
  package back = netsupport::unpacked(packed());
  EXPECT_EQ(back.magic, PACK_MAGIC);
  EXPECT_EQ(back.squez, 0);
  EXPECT_EQ(back.version, 0);
  EXPECT_EQ(back.type, 2);
  EXPECT_STREQ(back.filename, "/etc/hosts");
  EXPECT_EQ(back.usrid, 1000u);
  EXPECT_EQ(back.grpid, 0xfffffffeU);
  EXPECT_EQ(back.mode, 0100644u);
  EXPECT_EQ(back.mtime, 0x05060708u);
  EXPECT_EQ(back.atime, 0x15161718u);
  EXPECT_EQ(back.size, 1u);
  EXPECT_EQ(back.sequence, 3);
  EXPECT_EQ(back.unused1, PACK_FILLER);
  EXPECT_EQ(back.unused2, -2);
  EXPECT_STREQ(back.fromhost, "client1");
}

TEST_F(Package, ComesBackWithItsWholeSizeOnASoundSite) {
  soundSite();
  EXPECT_EQ(netsupport::unpacked(packed()).size, 0x100000001ULL);
  EXPECT_EQ(netsupport::unpacked(packed()).mtime, 0x05060708u);
}

TEST_F(Package, ExtendsSizesAndTimesWithZeros) {
  record.size = record.mtime = record.atime = 0xffffffffU;
  package back = netsupport::unpacked(packed());
  EXPECT_EQ(back.size, 4294967295u);
  EXPECT_EQ(back.mtime, 4294967295u);
  EXPECT_EQ(back.atime, 4294967295u);
}

TEST_F(Package, CarriesTheLongestName) {
  std::string longest(256, 'n');
  memcpy(record.filename, longest.c_str(), 257);
  EXPECT_EQ(netsupport::name(netsupport::unpacked(packed())), longest);
}

TEST_F(Package, IsUnpackedFromJunkWithTextsThatEndInTheirFields) {
  std::string junk(PACK_SIZE, '\xff');
  package back = netsupport::unpacked(junk);
  EXPECT_EQ(back.magic, 0xffffffffU);
  EXPECT_EQ(strnlen(back.filename, sizeof back.filename), 256u);
  EXPECT_EQ(strnlen(back.fromhost, sizeof back.fromhost), 63u);
}

TEST_F(Package, OfAnEndedListBeginsWithItsOwnMagic) {
  record.magic = PACK_EOL_MAGIC;
  EXPECT_EQ(at(0, 4), "St0P");
  memcpy(&record.magic, "P0tS", 4);
  EXPECT_EQ(at(0, 4), "St0P");
}

}  // namespace
