#include <climits>
#include <cstring>
#include <tuple>

#include "platform/Process.h"
#include "platform/Security.h"
#include "support/Programs.h"

namespace orvane {
namespace {

Ref<Dictionary> attributes(const audit_token_t& token) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(&token);
  return dictionary_create(GuestAttribute::Audit, Value::data({bytes, sizeof(token)}));
}
Ref<Dictionary> attributes(pid_t pid) { return dictionary_create(GuestAttribute::Pid, number_create(pid)); }

// A status, an identifier and a path, which ask() gets by the same calls as the core.
using Answer = std::tuple<OSStatus, std::string, std::string>;

Answer ask(const Ref<Dictionary>& attributes) {
  Ref<SecCode> code;
  Ref<SecStaticCode> staticCode;
  Ref<Dictionary> information;
  Ref<CodeURL> url;
  OSStatus status = SecCodeCopyGuestWithAttributes(nullptr, attributes.get(), kDefaultFlags, code.out());
  EXPECT_EQ(status == 0, SecCodeCopyStaticCode(code.get(), kDefaultFlags, staticCode.out()) == 0);
  code = nullptr;
  EXPECT_EQ(status == 0, SecCodeCopySigningInformation(staticCode.get(), kDefaultFlags, information.out()) == 0);
  EXPECT_EQ(status == 0, SecCodeCopyPath(staticCode.get(), kDefaultFlags, url.out()) == 0);
  const Dictionary* propertyList = dictionary_get_dictionary(information.get(), kSecCodeInfoPList);
  return {status, dictionary_copy_string(propertyList, kCFBundleIdentifierKey).value_or("none"),
          url_copy_file_system_path(url.get()).value_or("none")};
}

TEST(SecurityTest, IdentifiesLinkedAndRemovedPrograms) {
  ProgramFolder folder;
  for (const char* name : {"browser", "removed", "spelled (deleted)"}) folder.program(name);
  std::filesystem::create_symlink("browser", folder.path("link"));
  const std::pair<const char*, const char*> kCases[] = {
      {"browser", "browser"}, {"link", "browser"}, {"removed", "removed"}, {"spelled (deleted)", "spelled (deleted)"}};
  for (const auto& [started, name] : kCases) {
    RunningProgram program(folder.path(started));
    if (started == std::string("removed")) std::filesystem::remove(folder.path(started));
    Answer expected(0, name, folder.path(name));
    EXPECT_EQ(expected, ask(attributes(program.pid)));
    EXPECT_EQ(expected, ask(attributes(audit_token_of_process(program.pid).value())));
  }
}

TEST(SecurityTest, RejectsEndedProcessesAndReusedPids) {
  RunningProgram program("/bin/sleep");
  const audit_token_t token = audit_token_of_process(program.pid).value();
  audit_token_t recycled = token;
  recycled.val[7] += 1;
  const Answer kInvalid(-67066, "none", "none"), kNone(-67065, "none", "none");
  EXPECT_EQ(kInvalid, ask(dictionary_create(GuestAttribute::Audit, Value::data(std::vector<uint8_t>(31)))));
  EXPECT_EQ(kNone, ask(attributes(recycled)));
  for (pid_t pid : {0, -1, INT_MAX}) EXPECT_EQ(kNone, ask(attributes(pid))) << pid;
  program.end();
  EXPECT_EQ(kNone, ask(attributes(token)));
  EXPECT_EQ(kNone, ask(attributes(program.pid)));
  EXPECT_FALSE(audit_token_of_process(program.pid));
  EXPECT_EQ(-1, responsibility_get_pid_responsible_for_pid(program.pid));
}

}  // namespace
}  // namespace orvane
