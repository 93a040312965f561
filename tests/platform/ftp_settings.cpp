// The settings of FTP, good ones and others.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>

#include "platform/ftp.h"
#include "tests/platform/support.h"

namespace {

class FtpSettings : public testing::Test {
 protected:
  FtpSettings() { std::filesystem::create_directories(root_.path("/etc")); }
  void write(const std::string& lines, mode_t mode = 0600) {
    writeFile(root_.path("/etc/camera.conf"), "[Ftp]\n" + lines);
    chmod(root_.path("/etc/camera.conf").c_str(), mode);
  }
  // Reads settings that can't be used. Returns true iff they are refused and nothing is changed.
  static bool refused() {
    TFtpServer record;
    std::memset(&record, 'x', sizeof record);
    const TFtpServer before = record;
    return get_ftp_server(&record) != 0 && std::memcmp(&record, &before, sizeof record) == 0;
  }

  TempRoot root_;
  LogReader log_{root_};
};

TEST_F(FtpSettings, EachKeyHasAPlaceOfItsOwn) {
  write(
      "Server=ftp.example.org\nPort=2121\nUser=cam\nPassword=w0rd\nFolder=cams/1\nPrefix=north\n"
      "FixedName=1\nFileName=now\nActive=1\n");
  TFtpServer record{};
  EXPECT_EQ(get_ftp_server(&record), 0);
  EXPECT_STREQ(record.server, "ftp.example.org");
  EXPECT_EQ(record.port, 2121);
  EXPECT_STREQ(record.user, "cam");
  EXPECT_STREQ(record.password, "w0rd");
  EXPECT_STREQ(record.folder, "cams/1");
  EXPECT_STREQ(record.prefix, "north");
  EXPECT_EQ(record.fixedName, 1);
  EXPECT_STREQ(record.fileName, "now");
  EXPECT_EQ(record.option, kFtpActive);
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(FtpSettings, AServerIsAllThatIsNeeded) {
  write("Server=10.0.0.1\n");
  TFtpServer record;
  std::memset(&record, 'x', sizeof record);
  EXPECT_EQ(get_ftp_server(&record), 0);
  EXPECT_STREQ(record.server, "10.0.0.1");
  EXPECT_EQ(record.port, 21);
  for (const char* text :
       {record.user, record.password, record.folder, record.prefix, record.fileName})
    EXPECT_STREQ(text, "");
  EXPECT_EQ(record.fixedName, 0);
  EXPECT_EQ(record.option, kFtpPassive);
}

TEST_F(FtpSettings, WithoutAServerThereIsNone) {
  EXPECT_TRUE(refused()) << "no file";
  write("User=cam\n");
  EXPECT_TRUE(refused());
  write("Server=\nUser=cam\n");
  EXPECT_TRUE(refused());
}

TEST_F(FtpSettings, ATextThatFillsItsFieldIsGoodAndOneByteMoreIsRefused) {
  const std::pair<const char*, std::size_t> kTexts[] = {
      {"Server", 128}, {"User", 65}, {"Password", 67}, {"FileName", 131}};
  for (const auto& [key, longest] : kTexts) {
    const std::string setting = std::string("Server=a\n") + key + "=" + std::string(longest, 'y');
    write(setting + "\n");
    TFtpServer record{};
    EXPECT_EQ(get_ftp_server(&record), 0) << key;
    write(setting + "y\n");
    EXPECT_TRUE(refused()) << key;
    EXPECT_TRUE(log_.waitFor(std::string("2 /etc/camera.conf: [Ftp] ") + key + " is longer than " +
                             std::to_string(longest) + " bytes"));
  }
}

TEST_F(FtpSettings, APartOfANameThatNoRecorderCanUseIsRefused) {
  const std::pair<const char*, std::size_t> kParts[] = {{"Folder", 126}, {"Prefix", 64}};
  for (const auto& [key, longest] : kParts) {
    const std::string text(longest, 'y');
    write(std::string("Server=a\n") + key + "=" + text + "\n");
    TFtpServer record{};
    EXPECT_EQ(get_ftp_server(&record), 0) << key;
    write(std::string("Server=a\n") + key + "=" + text + "y\n");
    EXPECT_TRUE(refused()) << key;
    EXPECT_TRUE(log_.waitFor("2 path too long: " + text + "y"));
    for (const std::string climb : {"../", "a/../../"}) {
      write(std::string("Server=a\n") + key + "=" + climb + key + "\n");
      EXPECT_TRUE(refused()) << climb + key;
      EXPECT_TRUE(log_.waitFor("2 unsafe path refused: " + climb + key));
    }
  }
}

TEST_F(FtpSettings, AControlCharacterIsRefused) {
  for (const char* key : {"Server", "Folder", "User", "Password", "FileName", "Prefix"}) {
    write(std::string("Server=a\n") + key + "=b\tc\n");
    EXPECT_TRUE(refused()) << key;
    EXPECT_TRUE(log_.waitFor(std::string("2 /etc/camera.conf: [Ftp] ") + key +
                             " holds a control character"));
  }
}

TEST_F(FtpSettings, AllThatIsWrongIsToldAtOnce) {
  write("Server=a\tb\nUser=" + std::string(66, 'u') + "\nPort=0\n");
  EXPECT_TRUE(refused());
  EXPECT_EQ(log_.lines().size(), 3u);
}

TEST_F(FtpSettings, NumbersThatCanNotBeAreToldAndLeftOut) {
  for (const char* port : {"0", "-1", "65536", "99999999999"}) {
    write(std::string("Server=a\nPort=") + port + "\n");
    TFtpServer record{};
    EXPECT_EQ(get_ftp_server(&record), 0);
    EXPECT_EQ(record.port, 21) << port;
    const std::string shown = port == std::string("99999999999") ? "2147483647" : port;
    EXPECT_TRUE(log_.waitFor("2 /etc/camera.conf: [Ftp] Port is not from 1 to 65535: " + shown));
  }
  write("Server=a\nPort=ftp\nActive=2\nFixedName=-1\n");
  TFtpServer record{};
  EXPECT_EQ(get_ftp_server(&record), 0);
  EXPECT_EQ(record.port, 21);
  EXPECT_EQ(record.option, kFtpPassive);
  EXPECT_EQ(record.fixedName, 0);
  EXPECT_THAT(log_.lines(),
              testing::IsSupersetOf({"2 /etc/camera.conf: [Ftp] Port is not a number: ftp",
                                     "2 /etc/camera.conf: [Ftp] FixedName is not from 0 to 1: -1",
                                     "2 /etc/camera.conf: [Ftp] Active is not from 0 to 1: 2"}));
}

TEST_F(FtpSettings, APasswordThatOthersCanReadIsToldOnce) {
  TFtpServer record{};
  write("Server=a\n", 0644);
  EXPECT_EQ(get_ftp_server(&record), 0);
  EXPECT_TRUE(log_.lines().empty()) << "nothing to hide";
  write("Server=a\nPassword=w0rd\n", 0644);
  EXPECT_EQ(get_ftp_server(&record), 0);
  EXPECT_EQ(get_ftp_server(&record), 0);
  EXPECT_EQ(log_.lines(),
            std::vector<std::string>{
                "2 /etc/camera.conf holds a password and others can read it: mode 0644"});
}

}  // namespace
