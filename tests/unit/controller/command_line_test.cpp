#include "controller/command_line.h"

#include <gtest/gtest.h>

namespace tavrel::controller {
namespace {

Options read(const std::vector<std::string>& arguments) {
  const CommandLine line = parseCommandLine(arguments);
  EXPECT_FALSE(line.exit_status);
  return line.options;
}

TEST(CommandLine, LastValueWinsListsGrowAndTheUnknownIsIgnored) {
  const Options options =
      read({"--port", "1", "--seed", "a", "what", "--seed", "b:2", "-p", "90x", "--worker",
            "--router-mode", "--llm-backend", "--sub", "--master", "--no-cluster", "-bogus"});
  EXPECT_EQ(options.port, 90);
  EXPECT_EQ(options.seeds, (std::vector<std::string>{"a", "b:2"}));
  EXPECT_EQ(options.node_type, 3);
  EXPECT_TRUE(options.router_mode);
  EXPECT_FALSE(options.sub_controller);
  EXPECT_FALSE(options.cluster_enabled);
  EXPECT_EQ(read({"--port", "text"}).port, 0);
}

TEST(CommandLine, AnOptionWithoutItsValueEndsTheReading) {
  EXPECT_EQ(read({"--cluster-id", "c", "--port"}).port, 8080);
  EXPECT_EQ(read({"--bind", "--port", "9"}).bind_address, "--port");
}

TEST(CommandLine, AuthModesThatNeedCredentialsRequireThem) {
  EXPECT_TRUE(read({"--auth-mode", "admin", "--auth-mode", "none"}).require_auth);
  EXPECT_TRUE(read({"--auth-mode", "full"}).require_auth);
  EXPECT_FALSE(read({"--auth-mode", "other"}).require_auth);
  EXPECT_EQ(read({"--auth-mode", "other"}).auth_mode, "other");
}

TEST(CommandLine, HelpAndAWrongTierEndTheProgramAtOnce) {
  const CommandLine wrong = parseCommandLine({"--tier", "primary", "--tier", "bogus", "--help"});
  EXPECT_EQ(wrong.exit_status, 1);
  EXPECT_EQ(wrong.text, "Invalid tier: bogus");
  const CommandLine help = parseCommandLine({"--port", "1", "--help", "--tier", "bogus"});
  EXPECT_EQ(help.exit_status, 0);
  EXPECT_EQ(help.text.find("Usage: tavrel-controller [options]\nOptions:\n  -p, --port"), 0U);
  const CommandLine all = parseCommandLine({"--help-all"});
  EXPECT_EQ(all.text.find(help.text), 0U);
  EXPECT_NE(all.text.find("--worker-stall"), std::string::npos);
  EXPECT_EQ(read({"--tier", "tertiary"}).tier, Tier::kTertiary);
}

}  // namespace
}  // namespace tavrel::controller
