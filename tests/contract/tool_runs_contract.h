#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ports/tool_runs.h"

namespace contract {

// The shell scripts that the suite runs: a fixture without a shell knows what each of them does.
inline constexpr const char* kPrintsToBothOutputs = "echo out; echo err >&2";
inline constexpr const char* kFailsAfterPrinting = "echo text; exit 3";
inline constexpr const char* kPrintsAMillionBytes = "head -c 1000000 /dev/zero | tr '\\0' x";
inline constexpr const char* kReadsOneLine = "read line; echo \"line: $line\"";

// What runs of tools keep to on every host. A fixture has
//   ports::ToolRuns& tools();   where /bin/sh, /bin/cat and /bin/echo do what they do everywhere
template <class Fixture>
class ToolRunsContract : public testing::Test {
 protected:
  using Capture = ports::ToolRun::Capture;

  std::string shell(const char* script, Capture capture) {
    return fixture.tools().run({"/bin/sh", {"-c", script}, nullptr, capture});
  }
  std::string cat(ports::InputPipe& input) {
    return fixture.tools().run({"/bin/cat", {}, &input, Capture::bothOutputs});
  }

  Fixture fixture;
};
TYPED_TEST_SUITE_P(ToolRunsContract);

TYPED_TEST_P(ToolRunsContract, capturesBothOutputsInOnePipe) {
  EXPECT_EQ(this->shell(kPrintsToBothOutputs, ports::ToolRun::Capture::bothOutputs), "out\nerr\n");
}

TYPED_TEST_P(ToolRunsContract, capturesStandardErrorAlone) {
  EXPECT_EQ(this->shell(kPrintsToBothOutputs, ports::ToolRun::Capture::standardError), "err\n");
}

TYPED_TEST_P(ToolRunsContract, capturesNothingWhenNotAsked) {
  EXPECT_EQ(this->shell(kPrintsToBothOutputs, ports::ToolRun::Capture::none), "");
}

TYPED_TEST_P(ToolRunsContract, readsMuchOutputToItsEnd) {
  EXPECT_EQ(this->shell(kPrintsAMillionBytes, ports::ToolRun::Capture::bothOutputs),
            std::string(1000000, 'x'));
}

TYPED_TEST_P(ToolRunsContract, saysNothingOfTheExitStatus) {
  EXPECT_EQ(this->shell(kFailsAfterPrinting, ports::ToolRun::Capture::bothOutputs), "text\n");
}

TYPED_TEST_P(ToolRunsContract, passesArgumentsOnUnchanged) {
  const std::vector<std::string> arguments = {"a  b", "$HOME", "*", "'quoted\"", "", "grüße"};
  EXPECT_EQ(
      this->fixture.tools().run({"/bin/echo", arguments, nullptr, ports::ToolRun::Capture::bothOutputs}),
      "a  b $HOME * 'quoted\"  grüße\n");
}

TYPED_TEST_P(ToolRunsContract, givesTheToolWhatWasWrittenAheadOfItsStart) {
  const auto pipe = this->fixture.tools().makePipe();
  const std::string bytes("pass\0word\n", 10);
  pipe->write(base::Secret(bytes));
  pipe->closeWritingEnd();
  EXPECT_EQ(this->cat(*pipe), bytes);
}

TYPED_TEST_P(ToolRunsContract, givesTheToolSeveralWritesInOrder) {
  const auto pipe = this->fixture.tools().makePipe();
  pipe->write(base::Secret("one "));
  pipe->write(base::Secret("two"));
  pipe->closeWritingEnd();
  EXPECT_EQ(this->cat(*pipe), "one two");
}

TYPED_TEST_P(ToolRunsContract, takesAMillionBytesWithoutAReader) {
  const auto pipe = this->fixture.tools().makePipe();
  pipe->write(base::Secret(std::string(1000000, 'y')));
  pipe->closeWritingEnd();
  EXPECT_EQ(this->cat(*pipe), std::string(1000000, 'y'));
}

TYPED_TEST_P(ToolRunsContract, survivesAToolThatReadsOnlyTheBeginning) {
  const auto pipe = this->fixture.tools().makePipe();
  pipe->write(base::Secret("first\n" + std::string(1000000, 'y')));
  pipe->closeWritingEnd();
  EXPECT_EQ(this->fixture.tools().run(
                {"/bin/sh", {"-c", kReadsOneLine}, pipe.get(), ports::ToolRun::Capture::bothOutputs}),
            "line: first\n");
}

TYPED_TEST_P(ToolRunsContract, endsTheInputThatNobodyClosed) {
  const auto pipe = this->fixture.tools().makePipe();
  pipe->write(base::Secret("text"));
  EXPECT_EQ(this->cat(*pipe), "text");
}

TYPED_TEST_P(ToolRunsContract, endsTheInputThatNobodyWroteTo) {
  const auto pipe = this->fixture.tools().makePipe();
  EXPECT_EQ(this->cat(*pipe), "");
}

TYPED_TEST_P(ToolRunsContract, letsAPipeGoUnused) {
  const auto pipe = this->fixture.tools().makePipe();
  pipe->write(base::Secret("never read"));
  pipe->closeWritingEnd();
  EXPECT_EQ(this->shell(kFailsAfterPrinting, ports::ToolRun::Capture::bothOutputs), "text\n");
}

TYPED_TEST_P(ToolRunsContract, saysInOneLineThatAToolCannotBeLaunched) {
  const auto text =
      this->fixture.tools().run({"/bin/no-such-tool", {"x"}, nullptr, ports::ToolRun::Capture::bothOutputs});
  EXPECT_THAT(text, testing::HasSubstr("no-such-tool: launch failed - "));
  EXPECT_EQ(text.find('\n'), text.size() - 1);
}

TYPED_TEST_P(ToolRunsContract, runsInSeveralThreadsAtOnce) {
  std::string texts[4];
  {
    std::vector<std::jthread> threads;
    for (std::size_t i = 0; i < 4; ++i) {
      threads.emplace_back([&, i] {
        const auto pipe = this->fixture.tools().makePipe();
        pipe->write(base::Secret(std::to_string(i)));
        pipe->closeWritingEnd();
        texts[i] = this->cat(*pipe);
      });
    }
  }
  EXPECT_THAT(texts, testing::ElementsAre("0", "1", "2", "3"));
}

REGISTER_TYPED_TEST_SUITE_P(ToolRunsContract, capturesBothOutputsInOnePipe, capturesStandardErrorAlone,
                            capturesNothingWhenNotAsked, readsMuchOutputToItsEnd, saysNothingOfTheExitStatus,
                            passesArgumentsOnUnchanged, givesTheToolWhatWasWrittenAheadOfItsStart,
                            givesTheToolSeveralWritesInOrder, takesAMillionBytesWithoutAReader,
                            survivesAToolThatReadsOnlyTheBeginning, endsTheInputThatNobodyClosed,
                            endsTheInputThatNobodyWroteTo, letsAPipeGoUnused,
                            saysInOneLineThatAToolCannotBeLaunched, runsInSeveralThreadsAtOnce);

}  // namespace contract
