// The model on the master.cf of the machine's own Postfix, in its private copy, with
// postconf reading the result.
#include "support/FakeTool.h"
#include "torva/postfix/mastercf/MasterCf.h"

#include <gmock/gmock.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>

#include <sys/stat.h>

using namespace torva::mail::postfix;
using ::testing::HasSubstr;
using ::testing::Not;
using torva::test::contentOf;
using torva::test::writeFile;

namespace {

const char masterCf[] = "/etc/postfix/master.cf";

std::string outputOf(const std::string& command) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> pipe(::popen(command.c_str(), "r"),
                                                               &::pclose);
    if (!pipe) {
        throw std::runtime_error("cannot run " + command);
    }
    std::string text;
    std::array<char, 4096> piece{};
    while (const std::size_t size = std::fread(piece.data(), 1, piece.size(), pipe.get())) {
        text.append(piece.data(), size);
    }
    return text;
}

class RealPostfixTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(std::getenv("TORVA_SANDBOX"), nullptr);
        ::mkdir("/var/spool/postfix/torva", 0755);
        before_ = contentOf(masterCf);
        // Has a type that we do not edit, in every Postfix since 3.4.
        outputOf("postconf -M# postlog/unix-dgram 2>&1");
        sheltered_ = contentOf(masterCf);
    }
    void TearDown() override {
        writeFile(masterCf, before_);
        std::remove(MasterCf::disabledPath);
    }

    std::string before_;
    std::string sheltered_;
};

TEST_F(RealPostfixTest, DisabledServiceIsGoneForPostfixAndComesBackWithItsText) {
    const std::string line = outputOf("postconf -M relay/unix");
    ASSERT_THAT(line, HasSubstr("relay"));
    MasterCf services(masterCf);
    services.load(false);
    services.disableModule("relay", ModuleType::unix);
    EXPECT_TRUE(services.save(false));
    EXPECT_EQ(outputOf("postconf -M relay/unix 2>/dev/null"), "");
    EXPECT_THAT(contentOf(MasterCf::disabledPath), HasSubstr("relay"));

    MasterCf later(masterCf);
    later.load(false);
    later.enableModule("relay", ModuleType::unix);
    EXPECT_TRUE(later.save(false));
    EXPECT_EQ(outputOf("postconf -M relay/unix"), line);
}

TEST_F(RealPostfixTest, RemovedServiceIsGoneForPostfixAndTheOthersStay) {
    const std::string all = outputOf("postconf -M");
    const std::string line = outputOf("postconf -M relay/unix");
    MasterCf services(masterCf);
    services.load(false);
    services.removeModule("relay", ModuleType::unix);
    EXPECT_TRUE(services.save(false));
    std::string wanted = all;
    wanted.erase(wanted.find(line), line.size());
    EXPECT_EQ(outputOf("postconf -M"), wanted);
}

TEST_F(RealPostfixTest, ForcedSaveLeavesEveryServiceAndAddsOneLineEnd) {
    const std::string all = outputOf("postconf -M");
    MasterCf services(masterCf);
    services.load(false);
    EXPECT_FALSE(services.save(false));
    EXPECT_TRUE(services.save(true));
    EXPECT_EQ(contentOf(masterCf), sheltered_ + "\n");
    EXPECT_EQ(outputOf("postconf -M"), all);
}

TEST_F(RealPostfixTest, ServicePutIntoMasterCfIsReadByPostfix) {
    MasterCfModule module;
    module.name = "panel";
    module.type = ModuleType::unix;
    module.chroot = false;
    module.words = {"pipe", "flags=R", "user=nobody", "argv=/bin/true"};
    MasterCf services(masterCf);
    services.load(false);
    services.putModule(module, true);
    services.save(false);
    EXPECT_THAT(outputOf("postconf -M panel/unix"), HasSubstr("argv=/bin/true"));
    services.putModule(module, false);
    services.save(false);
    EXPECT_THAT(outputOf("postconf -M"), Not(HasSubstr("panel")));
}

} // namespace
