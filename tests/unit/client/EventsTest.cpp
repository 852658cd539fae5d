#include "client/ovardctl/Events.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/unit/client/TestServer.h"

namespace {

using namespace client_test;
using namespace ovardctl;

/// A log, and steps between the looks at it.
class Events : public testing::Test {
protected:
    using Step = std::function<void()>;

    Events() { request_.path = path_; }

    void write(const std::string& content) const {
        std::ofstream(path_, std::ios::trunc) << content;
    }
    void writeOlder(const std::string& content) const { std::ofstream(path_ + ".1") << content; }
    void append(const std::string& content) const {
        std::ofstream(path_, std::ios::app) << content;
    }
    void rotate() const { ASSERT_EQ(std::rename(path_.c_str(), (path_ + ".1").c_str()), 0); }

    /// Shows the log; each step happens before a further look. Returns what stands on standard
    /// output, and keeps the rest.
    std::string show(const std::vector<Step>& steps = {}) {
        const File output(std::tmpfile());
        const File errors(std::tmpfile());
        std::size_t done = 0;
        status_ = showEvents(request_, output.get(), errors.get(), [&] {
            if (done == steps.size()) {
                return false;
            }
            steps[done++]();
            return true;
        });
        EXPECT_EQ(done, steps.size());
        errors_ = contentOf(errors.get());
        return contentOf(output.get());
    }

    std::string follow(const std::vector<Step>& steps) {
        request_.follow = true;
        return show(steps);
    }

    struct CloseFile {
        void operator()(std::FILE* file) const { (void)std::fclose(file); }
    };
    using File = std::unique_ptr<std::FILE, CloseFile>;

    static std::string contentOf(std::FILE* file) {
        std::string text(static_cast<std::size_t>(std::ftell(file)), '\0');
        std::rewind(file);
        EXPECT_EQ(std::fread(text.data(), 1, text.size(), file), text.size());
        return text;
    }

    const TemporaryFolder folder_;
    const std::string path_ = folder_.file("log");
    EventRequest request_;
    std::string errors_;
    int status_ = -1;
};

std::string numberedLines(int first, int last) {
    std::string lines;
    for (int number = first; number <= last; ++number) {
        lines += "line " + std::to_string(number) + '\n';
    }
    return lines;
}

TEST_F(Events, ShowsTheLastTwentyLines) {
    write(numberedLines(1, 30));
    EXPECT_EQ(show(), numberedLines(11, 30));
    EXPECT_EQ(status_, 0);
    EXPECT_EQ(errors_, "");
}

TEST_F(Events, ShowsAsManyLinesAsAreWanted) {
    write(numberedLines(1, 30));
    for (const int count : {0, 1, 29, 30, 31, 1000000}) {
        request_.lines = count;
        EXPECT_EQ(show(), numberedLines(std::max(1, 31 - count), 30)) << count;
    }
}

TEST_F(Events, ReachesBackIntoTheRenamedLog) {
    writeOlder(numberedLines(1, 30));
    write(numberedLines(31, 35));
    EXPECT_EQ(show(), numberedLines(16, 35));
    request_.lines = 5;
    EXPECT_EQ(show(), numberedLines(31, 35));
    request_.lines = 6;
    EXPECT_EQ(show(), numberedLines(30, 35));
    request_.lines = 100;
    EXPECT_EQ(show(), numberedLines(1, 35));
}

TEST_F(Events, ShowsTheRenamedLogWhileThereIsNoOther) {
    writeOlder(numberedLines(1, 3));
    EXPECT_EQ(show(), numberedLines(1, 3));
    EXPECT_EQ(status_, 0);
    EXPECT_EQ(errors_, "");
}

TEST_F(Events, FinishesALineThatNobodyFinished) {
    writeOlder("old");
    write("one\ntwo");
    EXPECT_EQ(show(), "old\none\ntwo\n");
}

TEST_F(Events, GivesScriptsAnObjectALine) {
    write("2026-11-21 20:51:19.123 Ovard: restart all\nother\n");
    request_.json = true;
    EXPECT_EQ(show(), "{\"time\":\"2026-11-21T20:51:19.123Z\",\"tag\":\"Ovard\","
                      "\"text\":\"restart all\"}\n"
                      "{\"time\":null,\"tag\":null,\"text\":\"other\"}\n");
}

TEST_F(Events, EndsWith1WhenThereIsNoLog) {
    EXPECT_EQ(show(), "");
    EXPECT_EQ(status_, 1);
    EXPECT_EQ(errors_, "ovardctl: there is no event log " + path_ +
                           "; the monitor begins it with its first event, or name another one with "
                           "--file\n");
}

TEST_F(Events, EndsWith5WhenTheLogCannotBeRead) {
    ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0);
    EXPECT_EQ(show(), "");
    EXPECT_EQ(status_, 5);
    EXPECT_EQ(errors_, "ovardctl: cannot read the event log " + path_ +
                           ": it is no plain file; check the path and your rights on it\n");
}

TEST_F(Events, EndsWith5WhenNothingCanBeWritten) {
    write(numberedLines(1, 30));
    const File full(std::fopen("/dev/full", "we"));
    const File errors(std::tmpfile());
    int pauses = 0;
    for (const bool follows : {false, true}) {
        request_.follow = follows;
        EXPECT_EQ(showEvents(request_, full.get(), errors.get(), [&] { return ++pauses < 10; }), 5);
    }
    EXPECT_EQ(pauses, 0) << "it does not go on for nobody";
}

TEST_F(Events, DoesNotWaitUnlessItFollows) {
    write("one\n");
    int pauses = 0;
    const File output(std::tmpfile());
    (void)showEvents(request_, output.get(), stderr, [&] { return ++pauses < 10; });
    EXPECT_EQ(pauses, 0);
}

TEST_F(Events, FollowsWhatIsAppended) {
    write(numberedLines(1, 3));
    request_.lines = 1;
    EXPECT_EQ(follow({[&] { append("fo"); }, [&] { append("ur\nfive\n"); }, [] {}}),
              "line 3\nfour\nfive\n");
    EXPECT_EQ(status_, 0);
    EXPECT_EQ(errors_, "");
}

TEST_F(Events, ShowsAnUnfinishedLineOnceItIsFinished) {
    write("");
    const File output(std::tmpfile());
    request_.follow = true;
    int step = 0;
    (void)showEvents(request_, output.get(), stderr, [&] {
        switch (++step) {
        case 1:
            append("fo");
            return true;
        case 2:
            EXPECT_EQ(std::ftell(output.get()), 0);
            append("ur\n");
            return true;
        default:
            EXPECT_EQ(std::ftell(output.get()), 5);
            return false;
        }
    });
    EXPECT_EQ(step, 3);
}

TEST_F(Events, FollowsALogThatIsRenamedAndBegunAgain) {
    write(numberedLines(1, 1));
    EXPECT_EQ(follow({[&] {
                          append("two\n");
                          rotate();
                          append("three\n");
                      },
                      [] {}, [&] { append("four\n"); }, [] {}}),
              "line 1\ntwo\nthree\nfour\n");
    EXPECT_EQ(errors_, "");
}

TEST_F(Events, FollowsAWriterThatStillHasTheRenamedLogOpen) {
    write(numberedLines(1, 1));
    std::ofstream writer(path_, std::ios::app);
    EXPECT_EQ(follow({[&] {
                          rotate();
                          append("three\n");
                      },
                      [&] { writer << "two\n"
                                   << std::flush; }, [] {}}),
              "line 1\ntwo\nthree\n");
}

TEST_F(Events, FollowsAcrossRenamingsOneAfterTheOther) {
    write("");
    std::vector<Step> steps;
    for (int number = 1; number <= 9; number += 2) {
        steps.push_back([this, number] {
            append(numberedLines(number, number));
            rotate();
            append(numberedLines(number + 1, number + 1));
        });
        steps.push_back([] {});
        steps.push_back([] {});
    }
    EXPECT_EQ(follow(steps), numberedLines(1, 10));
}

TEST_F(Events, FollowsALogThatIsCutShort) {
    write(numberedLines(1, 3) + "unfinished");
    EXPECT_EQ(follow({[&] { write("new\n"); }, [&] { append("newer\n"); }}),
              numberedLines(1, 3) + "unfinished\nnew\nnewer\n");
}

TEST_F(Events, WaitsForALogThatDoesNotExistYet) {
    EXPECT_EQ(follow({[] {}, [] {}, [&] { append("one\n"); }, [&] { append("two\n"); }}),
              "one\ntwo\n");
    EXPECT_EQ(errors_, "ovardctl: there is no event log " + path_ + " yet; waiting for it\n");
    EXPECT_EQ(status_, 0);
}

TEST_F(Events, KeepsTheLogThatWasRemovedUntilAnotherOneComes) {
    write("one\n");
    std::ofstream writer(path_, std::ios::app);
    EXPECT_EQ(follow({[&] { ASSERT_EQ(::unlink(path_.c_str()), 0); },
                      [&] { writer << "two\n"
                                   << std::flush; }, [&] { append("three\n"); }, [] {}}),
              "one\ntwo\nthree\n");
    EXPECT_EQ(errors_, "");
}

TEST_F(Events, TellsOnceThatTheNewLogCannotBeRead) {
    write("one\n");
    EXPECT_EQ(follow({[&] {
                          rotate();
                          ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0);
                      },
                      [] {}, [] {},
                      [&] {
                          ASSERT_EQ(::unlink(path_.c_str()), 0);
                          append("two\n");
                      },
                      [] {}}),
              "one\ntwo\n");
    EXPECT_EQ(errors_, "ovardctl: cannot read the event log " + path_ +
                           ": it is no plain file; check the path and your rights on it\n");
    EXPECT_EQ(status_, 0);
}

TEST_F(Events, KeepsEscapeSequencesAwayFromTheTerminal) {
    write("\x1b]0;x\x07\r\n");
    EXPECT_EQ(show(), "\\x1b]0;x\\x07\\x0d\n");
}

} // namespace
