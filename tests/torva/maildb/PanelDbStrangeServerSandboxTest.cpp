// A server that does not answer, or not like one; a program without standard streams.
#include "torva/maildb/BoundedChild.h"
#include "torva/maildb/MysqlProxy.h"
#include "torva/maildb/SessionFixture.h"
#include "torva/maildb/StrangeServer.h"
#include "torva/maildb/panel_db.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <functional>
#include <sys/socket.h>
#include <unistd.h>

using namespace torva::test;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

/// A query on its own connection, for at most a minute.
std::string ask() {
    return bounded([] {
        char** list = nullptr;
        const int result = db_get_mail_names(nullptr, "example.com", &list);
        db_free_list(list);
        return result;
    });
}

const std::string no_answer = "3 Unable to connect to mysql database\n"
                              "3 Unable to get mailnames from domain: example.com\n";

TEST_F(PanelSession, TheTimeOutsAre10SecondsToConnectAnd30ToReadOrWrite) {
    const Opened opened = open_with(db_connect);
    ASSERT_NE(nullptr, opened.connection);
    std::vector<unsigned int> seconds;
    for (const auto option :
         {MYSQL_OPT_CONNECT_TIMEOUT, MYSQL_OPT_READ_TIMEOUT, MYSQL_OPT_WRITE_TIMEOUT}) {
        unsigned int value = 0;
        EXPECT_EQ(0, mysql_get_option(opened.connection.get(), option, &value));
        seconds.push_back(value);
    }
    EXPECT_THAT(seconds, ElementsAre(10U, 30U, 30U));
}

TEST_F(PanelSession, AServerThatAcceptsAndSaysNothingIsAFailedConnection) {
    const StrangeServer mute([](int) {});
    EXPECT_EQ("-1\n3 Unable to connect to Torva Database: Lost connection to server at 'handshake: "
              "reading initial communication packet', system error: 110\n" +
                  no_answer,
              ask());
}

TEST_F(PanelSession, AServerThatDoesNotAcceptIsAFailedConnection) {
    const StrangeServer busy([](int) {}, false);
    EXPECT_THAT(ask(), testing::AllOf(StartsWith("-1\n3 Unable to connect to Torva Database: "),
                                      EndsWith(no_answer)));
}

TEST_F(PanelSession, AServerThatBabblesIsAFailedConnection) {
    using namespace std::string_literals;
    const std::pair<const char*, std::string> cases[] = {
        {"text", "220 mail.example.com ESMTP\r\n"},
        {"zeros", std::string(100000, '\0')},
        {"ones", std::string(100000, '\xff')},
        {"a length without contents", "\x64\0\0\0\x0a"s},
        {"a greeting that breaks off", "\x08\0\0\0\x0a"s + "5.5.5-x"},
        {"an unknown protocol", "\x08\0\0\0\x63"s + "5.5.5-x"},
        {"a greeting without an end", "\x30\0\0\0\x0a"s + std::string(48, 'v')},
    };
    for (const auto& [name, bytes] : cases) {
        const bool waits = name == std::string("a length without contents");
        const StrangeServer babbler([&bytes = bytes, waits](int connection) {
            StrangeServer::send(connection, bytes);
            shutdown(connection, waits ? SHUT_RD : SHUT_RDWR);
        });
        EXPECT_THAT(ask(), testing::AllOf(StartsWith("-1\n3 Unable to connect to Torva Database: "),
                                          EndsWith(no_answer)))
            << name;
    }
}

TEST_F(PanelSession, AServerThatNeverStopsBabblingIsAFailedConnection) {
    const StrangeServer babbler([](int connection) {
        for (int turn = 0; turn < 100000; ++turn) {
            StrangeServer::send(connection, std::string(65536, 'x'));
        }
    });
    EXPECT_THAT(ask(), StartsWith("-1\n3 Unable to connect to Torva Database: "));
}

TEST_F(PanelSession, AServerThatFallsSilentAfterTheHandshakeIsAFailedConnection) {
    const MysqlProxy silence("SHOW VARIABLES LIKE 'version'", MysqlProxy::Action::swallow);
    EXPECT_EQ("-1\n3 DB error (query version) 2013: Lost connection to server during query\n" +
                  no_answer,
              ask());
}

// What an earlier session left.

TEST_F(PanelSession, OpeningEmptiesTheMessageBuffer) {
    char message[] = "left by another session";
    const Connection connection(db_open(message, sizeof message), mysql_close);
    EXPECT_NE(nullptr, connection);
    EXPECT_STREQ("", message);
}

TEST_F(PanelSession, OpeningResetsTheFlagAlsoWhenItFails) {
    server.run("INSERT INTO misc VALUES ('mysql41_compatible', 'true')");
    EXPECT_NE(nullptr, open_with(db_open).connection);
    EXPECT_EQ(1, db_utf8_compatible);
    write_shadow("wrong\n");
    EXPECT_EQ(nullptr, open_with(db_open).connection);
    EXPECT_EQ(0, db_utf8_compatible);
}

TEST_F(PanelSession, OpeningTakesNoBuffer) {
    write_shadow("wrong\n");
    EXPECT_EQ(nullptr, db_open(nullptr, 0));
}

// Standard streams.

TEST_F(PanelSession, TheSessionIsNoneOfTheStandardStreams) {
    const std::vector<std::vector<int>> closed_ones = {{0, 1, 2}, {0}, {1}, {2}, {0, 2}};
    for (const auto& closed : closed_ones) {
        EXPECT_EQ("0\n", bounded([&] {
                      for (const int fd : closed) {
                          close(fd);
                      }
                      const Opened opened = open_with(db_connect);
                      if (opened.connection == nullptr ||
                          mysql_get_socket(opened.connection.get()) <= 2) {
                          return 1;
                      }
                      for (const int fd : closed) { // they are closed again
                          if (fcntl(fd, F_GETFD) != -1) {
                              return 2;
                          }
                      }
                      return is_close_on_exec(mysql_get_socket(opened.connection.get())) ? 0 : 3;
                  }));
    }
}

} // namespace
