// SPDX-License-Identifier: GPL-3.0-only
// The credentials file: every number of lines, lines at the size of the buffer, and invalid ports.
#include "session/credentials.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <optional>
#include <utility>

#include "tests/fakes/servicefixture.h"

namespace {

std::optional<uid_t> pretendedUser;  // what the process takes itself for, once

}  // namespace

// Replaces libc's function, because only root can give a file to another user.
uid_t geteuid() noexcept {
    static auto* const real = reinterpret_cast<decltype(geteuid)*>(dlsym(RTLD_NEXT, "geteuid"));
    return std::exchange(pretendedUser, std::nullopt).value_or(real());
}

namespace {

struct Details {
    std::string jid = "old jid", password = "old password", resource = "old resource", server = "old server",
                service = "old service";
    int port = 77;
    bool operator==(const Details&) const = default;
    friend void PrintTo(const Details& details, std::ostream* stream) {
        *stream << details.jid << '|' << details.password << '|' << details.server << '|' << details.port
                << '|' << details.service << '|' << details.resource;
    }
};

class Credentials : public ServiceTest {
  protected:
    Details read() {
        Details details;
        ReadCredentials(details.jid, details.password, details.resource, details.server, details.port,
                        details.service);
        return details;
    }
    Details read(const std::string& text) {
        writeFile(stateFolder() / "pubsub.conf", text);
        return read();
    }
};

TEST_F(Credentials, ChangeNothingWithoutAFileAndSayNothing) {
    EXPECT_EQ(read(), Details());
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(Credentials, ChangeNothingWhenTheFileCannotBeOpened) {
    std::filesystem::create_directory(stateFolder() / "pubsub.conf");
    EXPECT_EQ(read(), Details());
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(Credentials, OfAFileThatOthersCanReadOrWriteAreRefusedWithWhatToDo) {
    const auto path = stateFolder() / "pubsub.conf";
    writeFile(path, "u1@example.org\nsecret\n");
    for (const mode_t mode : {0640, 0604, 0620, 0602, 0610, 0601}) {
        ASSERT_EQ(chmod(path.c_str(), mode), 0);
        EXPECT_EQ(read(), Details()) << mode;
        EXPECT_EQ(
            takeLogLines(),
            Texts{"ReadCredentials: " + path.string() +
                  " can be read by others than its owner; `chmod 600` it and have the password changed"});
    }
    for (const mode_t mode : {0600, 0400, 0700}) {
        ASSERT_EQ(chmod(path.c_str(), mode), 0);
        EXPECT_EQ(read().jid, "u1@example.org") << mode;
    }
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(Credentials, OfAnotherUsersFileAreRefused) {
    const auto path = stateFolder() / "pubsub.conf";
    writeFile(path, "u1@example.org\nsecret\n");
    if (geteuid() == 0) {  // a file of root's is trusted by everybody
        ASSERT_EQ(chown(path.c_str(), 65534, 65534), 0);
    }
    struct stat file = {};
    ASSERT_EQ(stat(path.c_str(), &file), 0);
    pretendedUser = file.st_uid + 1;
    EXPECT_EQ(read(), Details());
    EXPECT_EQ(takeLogLines(), Texts{"ReadCredentials: " + path.string() +
                                    " belongs to another user; give it to the user of this service"});
}

TEST_F(Credentials, ReadFromZeroToEightLines) {
    const Texts lines = {"u1@example.org",     "secret", "xmpp.example.org", "5223",
                         "pubsub.example.org", "dev42",  "seventh",          "eighth"};
    Details expected;
    std::string text;
    EXPECT_EQ(read(""), expected);
    for (std::size_t count = 1; count <= lines.size(); ++count) {
        text += lines[count - 1] + "\n";
        switch (count) {
            case 1:
                expected.jid = lines[0];
                break;
            case 2:
                expected.password = lines[1];
                break;
            case 3:
                expected.server = lines[2];
                break;
            case 4:
                expected.port = 5223;
                break;
            case 5:
                expected.service = lines[4];
                break;
            case 6:
                expected.resource = lines[5];
                break;
        }
        EXPECT_EQ(read(text), expected) << count << " lines";
    }
}

TEST_F(Credentials, NeedNoNewlineAtTheEnd) {
    EXPECT_EQ(read("a\nb\nc\n1\nd\ne").resource, "e");
}

TEST_F(Credentials, TakeAnEmptyLineForAnEmptyValue) {
    const Details details = read("a\n\nc\n1\nd\n\n");
    EXPECT_EQ(details.password, "");
    EXPECT_EQ(details.server, "c");
    EXPECT_EQ(details.resource, "");
}

TEST_F(Credentials, KeepBlanksAndCarriageReturns) {
    const Details details = read(" a \nb\r\n");
    EXPECT_EQ(details.jid, " a ");
    EXPECT_EQ(details.password, "b\r");
}

TEST_F(Credentials, ReadALineOf62CharactersAsOne) {
    const Details details = read(std::string(62, 'p') + "\nb\n");
    EXPECT_EQ(details.jid, std::string(62, 'p'));
    EXPECT_EQ(details.password, "b");
}

TEST_F(Credentials, ReadALineOf63CharactersAndItsNewlineAsTwo) {
    const Details details = read(std::string(63, 'p') + "\nb\n");
    EXPECT_EQ(details.jid, std::string(63, 'p'));
    EXPECT_EQ(details.password, "");
    EXPECT_EQ(details.server, "b");
}

TEST_F(Credentials, ReadALineOf64CharactersAsTwo) {
    const Details details = read(std::string(63, 'p') + "q\nb\n");
    EXPECT_EQ(details.jid, std::string(63, 'p'));
    EXPECT_EQ(details.password, "q");
    EXPECT_EQ(details.server, "b");
}

TEST_F(Credentials, ReadALongLineAsManyAndStopAfterTheSixth) {
    std::string line;
    for (char letter = 'a'; letter < 'i'; ++letter)
        line += std::string(63, letter);
    const Details details = read(line);
    EXPECT_EQ(details.jid, std::string(63, 'a'));
    EXPECT_EQ(details.port, 0);
    EXPECT_EQ(details.resource, std::string(63, 'f'));
}

TEST_F(Credentials, TakeAPortThatIsNoneForZero) {
    const std::pair<const char*, int> ports[] = {{"5222", 5222},
                                                 {"0", 0},
                                                 {"65535", 65535},
                                                 {"65536", 0},
                                                 {"-1", 0},
                                                 {"abc", 0},
                                                 {"", 0},
                                                 {" 42", 42},
                                                 {"42x", 42},
                                                 {"0x10", 0},
                                                 {"010", 10},
                                                 {"+7", 7},
                                                 {"99999999999999999999", 0}};
    for (const auto& [text, port] : ports)
        EXPECT_EQ(read(std::string("a\nb\nc\n") + text + "\n").port, port) << text;
}

TEST_F(Credentials, SurviveAZeroByteInALine) {
    const Details details = read(std::string("a\0b\nc\n", 6));
    EXPECT_EQ(details.jid, "a");
    EXPECT_EQ(details.password, "c");
}

TEST_F(Credentials, LeaveNoDescriptorOpen) {
    read("a\n");
    const int before = dup(0);
    close(before);
    for (int round = 0; round < 10; ++round)
        read("a\nb\n");
    const int after = dup(0);
    close(after);
    EXPECT_EQ(before, after);
}

TEST(DomainOf, IsTheTextAfterTheFirstAtSign) {
    EXPECT_EQ(domainOf("u1@example.org"), "example.org");
    EXPECT_EQ(domainOf("u1@one@two"), "one@two");
    EXPECT_EQ(domainOf("example.org"), "example.org");
    EXPECT_EQ(domainOf("u1@"), "");
    EXPECT_EQ(domainOf(""), "");
}

}  // namespace
