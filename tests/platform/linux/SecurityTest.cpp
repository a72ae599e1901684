#include <climits>
#include <cstring>

#include "platform/Process.h"
#include "platform/Security.h"
#include "platform/linux/ProcessInformation.h"
#include "platform/linux/Programs.h"

namespace orvane {
namespace {

Value data_of(const audit_token_t& token, size_t size = sizeof(audit_token_t)) {
  std::vector<uint8_t> bytes(size);
  std::memcpy(bytes.data(), &token, std::min(size, sizeof(token)));
  return Value::data(bytes);
}

struct Answer {
  OSStatus guest = 0;
  std::string identifier = "none", path = "none";
};

// The road that the core takes, from attributes to an identifier and a path.
Answer ask(const Ref<Dictionary>& attributes) {
  Answer answer;
  Ref<SecCode> code;
  answer.guest = SecCodeCopyGuestWithAttributes(nullptr, attributes.get(), kDefaultFlags, code.out());
  EXPECT_EQ(answer.guest == 0, static_cast<bool>(code));
  Ref<SecStaticCode> staticCode;
  EXPECT_EQ(answer.guest == 0, SecCodeCopyStaticCode(code.get(), kDefaultFlags, staticCode.out()) == 0);
  code = nullptr;
  Ref<Dictionary> information;
  EXPECT_EQ(answer.guest == 0, SecCodeCopySigningInformation(staticCode.get(), kDefaultFlags, information.out()) == 0);
  Ref<CodeURL> url;
  EXPECT_EQ(answer.guest == 0, SecCodeCopyPath(staticCode.get(), kDefaultFlags, url.out()) == 0);
  const Dictionary* propertyList = dictionary_get_dictionary(information.get(), kSecCodeInfoPList);
  answer.identifier = dictionary_copy_string(propertyList, kCFBundleIdentifierKey).value_or("none");
  answer.path = url_copy_file_system_path(url.get()).value_or("none");
  return answer;
}

Answer ask(pid_t pid) { return ask(dictionary_create(GuestAttribute::Pid, number_create(pid))); }
Answer ask(const Value& token) { return ask(dictionary_create(GuestAttribute::Audit, token)); }

TEST(SecurityTest, IdentifiesLinkedAndRemovedPrograms) {
  Folder folder;
  folder.program("pack/somebrowser-bin");
  folder.program("pack/spelled (deleted)");
  std::string link = folder.link("link", folder.path("pack/somebrowser-bin"));
  std::string removed = folder.program("pack/removed");
  const struct {
    std::string started, identifier, path;
  } kCases[] = {{folder.path("pack/somebrowser-bin"), "somebrowser-bin", folder.path("pack/somebrowser-bin")},
                {link, "somebrowser-bin", folder.path("pack/somebrowser-bin")},
                {removed, "removed", folder.path("pack/removed")},
                {folder.path("pack/spelled (deleted)"), "spelled (deleted)", folder.path("pack/spelled (deleted)")}};
  for (const auto& example : kCases) {
    RunningProgram program({example.started, "100"});
    if (example.started == removed) std::filesystem::remove(removed);
    auto token = audit_token_of_process(program.pid());
    ASSERT_TRUE(token);
    for (const Answer& answer : {ask(program.pid()), ask(data_of(*token))}) {
      EXPECT_EQ(0, answer.guest);
      EXPECT_EQ(example.identifier, answer.identifier);
      EXPECT_EQ(example.path, answer.path);
    }
  }
}

TEST(SecurityTest, RefusesEndedAndRecycledProcesses) {
  constexpr OSStatus kInvalidValues = -67066, kNoSuchCode = -67065;
  RunningProgram program({"/bin/sleep", "100"});
  auto token = audit_token_of_process(program.pid());
  ASSERT_TRUE(token);
  audit_token_t recycled = *token;
  recycled.val[7] += 1;
  audit_token_t nobody{};
  EXPECT_EQ(kNoSuchCode, ask(data_of(recycled)).guest);
  EXPECT_EQ(kNoSuchCode, ask(data_of(nobody)).guest);
  EXPECT_EQ(kInvalidValues, ask(data_of(*token, 31)).guest);
  EXPECT_EQ(kInvalidValues, ask(data_of(*token, 33)).guest);
  EXPECT_EQ(kInvalidValues, ask(Value()).guest);
  for (pid_t pid : {0, -1, INT_MIN, INT_MAX}) EXPECT_EQ(kNoSuchCode, ask(pid).guest) << pid;
  pid_t pid = program.pid();
  program.endUnnoticed();
  EXPECT_EQ(kNoSuchCode, ask(data_of(*token)).guest);
  EXPECT_EQ(kNoSuchCode, ask(pid).guest);
  program.end();
  EXPECT_EQ(kNoSuchCode, ask(data_of(*token)).guest);
  EXPECT_NE(0, ask(Ref<Dictionary>()).guest);
}

TEST(SecurityTest, GivesKernelThreadsNoIdentifier) {
  constexpr pid_t kThreadDaemon = 2;
  auto process = ProcessInformation::open(kThreadDaemon);
  if (!process || process->parent() != 0) GTEST_SKIP() << "no kernel threads in this process namespace";
  Answer answer = ask(kThreadDaemon);
  EXPECT_EQ(0, answer.guest);
  EXPECT_EQ("none", answer.identifier);
  EXPECT_EQ("none", answer.path);
}

}  // namespace
}  // namespace orvane
