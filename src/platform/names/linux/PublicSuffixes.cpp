#include "platform/names/PublicSuffixes.h"

#include <libpsl.h>

namespace orvane {

bool is_public_suffix(const char* host) {
  // The newer of two versions of the Public Suffix List: the file of Debian's package publicsuffix, and the version
  // that is compiled into libpsl.
  static const psl_ctx_t* const list = psl_latest(nullptr);
  return psl_is_public_suffix2(list, host, PSL_TYPE_ANY | PSL_TYPE_NO_STAR_RULE) == 1;
}

}  // namespace orvane
