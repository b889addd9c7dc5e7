// SPDX-License-Identifier: GPL-3.0-only
// The account: its file, its command and what the account service answers.
#include "platform/host/account.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <sstream>

#include "platform/host/accountcommand.h"
#include "platform/host/accountservices.h"
#include "tests/unit/host/caller.h"
#include "tests/unit/host/privatebus.h"

namespace {

using testing::HasSubstr;

constexpr char kText[] =
    R"({"user":"device1","service":"example.com","url":"xmpp.example.com","port":"5222","token":"s3cret"})";
constexpr char kGetToken[] = "quor://com.zelt.accountservices/getAccountToken";

class AccountFile : public testing::Test {
  protected:
    AccountFile() { config.accountFile = path; }
    void write(const std::string& text, mode_t mode = 0600) {
        std::ofstream(path) << text;
        chmod(path.c_str(), mode);
    }
    // The text of the refusal, or "read".
    std::string read() {
        std::string words;
        return readAccount(path, account, words) ? "read" : words;
    }
    int command(std::vector<std::string> words, const std::string& input = "") {
        std::istringstream in(input);
        out.str("");
        err.str("");
        return runAccountCommand(words, config, in, out, err);
    }

    TestFolder folder;
    std::string path = folder / "account.json";
    HostConfig config;
    Account account;
    std::ostringstream out;
    std::ostringstream err;
};

TEST_F(AccountFile, IsReadWhenItsOwnerAloneMayReadIt) {
    write(kText);
    EXPECT_EQ(read(), "read");
    EXPECT_EQ(account.user, "device1");
    EXPECT_EQ(account.service, "example.com");
    EXPECT_EQ(account.url, "xmpp.example.com");
    EXPECT_EQ(account.port, "5222");
    EXPECT_EQ(account.token, "s3cret");
}

TEST_F(AccountFile, MayGiveItsPortAsANumber) {
    write(R"({"user":"u","service":"s","url":"h","port":5222,"token":"t"})");
    EXPECT_EQ(read(), "read");
    EXPECT_EQ(account.port, "5222");
}

TEST_F(AccountFile, IsRefusedWhenOthersCanReadIt) {
    for (mode_t mode : {0640, 0604, 0644, 0620}) {
        write(kText, mode);
        EXPECT_EQ(
            read(),
            path + " is readable by users other than its owner; `chmod 600` it and have the token changed");
    }
}

TEST_F(AccountFile, IsRefusedWithTheReasonWhenItIsMissingOrNoFile) {
    EXPECT_EQ(read(), "no account is set; set the account with `zelt-host account set`");
    std::filesystem::create_directory(path);
    EXPECT_EQ(read(), path + " is not a regular file; set the account with `zelt-host account set`");
    std::filesystem::remove(path);
    std::filesystem::create_symlink("/dev/null", path);
    EXPECT_THAT(read(), HasSubstr("cannot read " + path));
}

TEST_F(AccountFile, IsRefusedWhenAMemberIsMissingOrUnusable) {
    for (auto [text, reason] : {
             std::pair{"nonsense", "the account has no token"},
             std::pair{R"({"service":"s","url":"h","port":"1","token":"t"})", "the account has no user"},
             std::pair{R"({"user":"u","url":"h","port":"1","token":"t"})", "the account has no service"},
             std::pair{R"({"user":"u","service":"s","port":"1","token":"t"})", "the account has no url"},
             std::pair{R"({"user":"u","service":"s","url":"h","token":"t"})", "the account has no port"},
             std::pair{R"({"user":"u","service":"s","url":"h","port":"1"})", "the account has no token"},
             std::pair{R"({"user":"u","service":"s","url":"h","port":"0","token":"t"})",
                       "the account's port must be a number from 1 to 65535"},
             std::pair{R"({"user":"u","service":"s","url":"h","port":"65536","token":"t"})",
                       "the account's port must be a number from 1 to 65535"},
             std::pair{R"({"user":"u","service":"s","url":"h","port":"1","token":"a\"b"})",
                       "the account's token contains a quote, a backslash or a control character"},
             std::pair{R"({"user":"u\\","service":"s","url":"h","port":"1","token":"t"})",
                       "the account's user contains a quote, a backslash or a control character"},
         }) {
        write(text);
        EXPECT_EQ(read(), path + ": " + reason + "; set the account with `zelt-host account set`") << text;
    }
}

TEST_F(AccountFile, IsWrittenByTheCommandForItsOwnerAlone) {
    write("an older file that all can read", 0644);
    EXPECT_EQ(command({"set", "--user", "device1", "--service", "example.com", "--url", "127.0.0.1", "--port",
                       "5269"},
                      "s3cret\nmore\n"),
              0);
    EXPECT_EQ(out.str(),
              "account device1@example.com written to " + path + "; `pubsubctl session login` uses it\n");
    struct stat status = {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
    EXPECT_EQ(read(), "read");
    EXPECT_EQ(account.token, "s3cret");
    EXPECT_EQ(account.port, "5269");
    EXPECT_EQ(command({"show"}), 0);
    EXPECT_EQ(out.str(), "device1@example.com at 127.0.0.1:5269\n");
    EXPECT_EQ(command({"clear"}), 0);
    EXPECT_EQ(command({"clear"}), 0);
    EXPECT_EQ(command({"show"}), 1);
    EXPECT_EQ(err.str(), "zelt-host: no account is set; set the account with `zelt-host account set`\n");
}

// Run by root, the other user is one that cannot read what root owns; otherwise it is this one.
TEST_F(AccountFile, BelongsToTheOwnerOfItsFolderWhoeverWritesIt) {
    const uid_t user = geteuid() == 0 ? 65534 : geteuid();
    const gid_t group = geteuid() == 0 ? 65534 : getegid();
    ASSERT_EQ(chown(folder.path().c_str(), user, group), 0);
    const std::vector<std::string> words = {"set", "--user", "device1", "--service", "example.com"};
    for (const char* token : {"first", "second"}) {
        ASSERT_EQ(command(words, token), 0) << err.str();
        struct stat status = {};
        ASSERT_EQ(stat(path.c_str(), &status), 0);
        EXPECT_EQ(status.st_uid, user);
        EXPECT_EQ(status.st_gid, group);
        EXPECT_EQ(status.st_mode & 0777, 0600u);
        EXPECT_EQ(geteuid(), getuid());
        EXPECT_EQ(getegid(), getgid());
    }
}

TEST_F(AccountFile, TakesTheServerAndThePortFromTheServiceUnlessGiven) {
    EXPECT_EQ(command({"set", "--user", "u", "--service", "example.com"}, "t"), 0);
    EXPECT_EQ(read(), "read");
    EXPECT_EQ(account.url, "example.com");
    EXPECT_EQ(account.port, "5222");
}

TEST_F(AccountFile, IsNotWrittenFromAWrongCommandLine) {
    for (auto [words, problem] : {
             std::pair{std::vector<std::string>{}, "account needs a command: set, show or clear"},
             std::pair{std::vector<std::string>{"paint"}, "unknown command paint"},
             std::pair{std::vector<std::string>{"show", "x"}, "unexpected argument: x"},
             std::pair{std::vector<std::string>{"set", "--user"}, "--user needs a value"},
             std::pair{std::vector<std::string>{"set", "--token", "t"}, "unknown option --token"},
             std::pair{std::vector<std::string>{"set", "--user", "u"}, "--user and --service are required"},
         }) {
        EXPECT_EQ(command(words, "t"), 2);
        EXPECT_EQ(err.str(), "zelt-host: " + std::string(problem) + "\n" + kAccountUsage);
    }
    EXPECT_EQ(command({"set", "--user", "u", "--service", "s"}, ""), 1);
    EXPECT_EQ(err.str(), "zelt-host: the account has no token\n");
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(AccountPayload, HoldsTheAccountAsATextWithinTheAnswer) {
    EXPECT_EQ(
        accountPayload({"u", "example.com", "a/b", "5222", "t/k"}),
        R"({"returnValue":true,"jabberId":"{\"user\":\"u\",\"service\":\"example.com\",\"url\":\"a/b\",)"
        R"(\"port\":\"5222\"}","uniqueId":"t/k"})");
}

TEST_F(AccountFile, IsReadAnewAtEachCallOfTheService) {
    PrivateBus bus;
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    {
        AccountServices service(config);
        ASSERT_EQ(service.start(loop), StartResult::Started);
        Caller caller;
        EXPECT_EQ(caller.call(kGetToken, ""),
                  "{\"returnValue\":false,\"errorText\":\"no account is set; set the "
                  "account with `zelt-host account set`\"}");
        write(kText);
        EXPECT_EQ(caller.call(kGetToken, ""),
                  R"({"returnValue":true,"jabberId":"{\"user\":\"device1\",\"service\":\"example.com\",)"
                  R"(\"url\":\"xmpp.example.com\",\"port\":\"5222\"}","uniqueId":"s3cret"})");
    }
    g_main_loop_unref(loop);
}

}  // namespace
