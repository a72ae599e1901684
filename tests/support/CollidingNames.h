#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace orvane {

// Up to 5832 host names for which std::hash of libstdc++, an unkeyed MurmurHash2, gives the same number. Each of the
// three strings below consists of 18 blocks of 16 characters. All blocks of a string change the state of the hash in
// the same way. A name has one block from each string.
inline std::vector<std::string> colliding_names(size_t count) {
  constexpr std::string_view kBlocks[] = {
      "4hgyus1jva4o1al35vhy7btq7v778ahxt3xmkb7pf2rsaevjpnegql49y9uphge9rih36xyte1hs3f7pgi61t2nf72zvkfan"
      "10c1579n8ppgt1biyekfum6cxgleq5tpvo368u9ll5y1fl6f27dnd9r8yfl5dsq7asx3i8mc1xrxqfubvunvogv08wqu15v4"
      "si7k20c18g8b4h48lau6cvtckaogbj7zb2mnxn70x8i9vj8vst5evvgi8rjfoeunjubtvpgz3ivrykbexi8tbndtsnmk988r",
      "lbyty1fbf0jvrw4xkgsc52ajw4uybk2tzcrbxdgvqat30grt9czsscjq11jib1vn18j13iny09ja15yzwtqt3jtz8c4szjcl"
      "qahy81un10d8amypnixtpibvuo6m2510ujbz14ye9oudi9lj2qdkdrysmscii0suht3pglsmq53zh2c6h9nnw79b4qu3nfie"
      "doznmdv8s53rp7nv3fuwsu9nflfi0wzdrzq8a29wfcnba0jfna2otknzkzdy30gu7tcdbjg9kprlex2as5yo985le2ccrh99",
      "5njpd6qe9tthu6mmmrltc915394h886hyy01d4fbjmtjdonvzuq1366eexqa2q9mqn7d89erbmlcpamecdwadaydjwfkva39"
      "g3pwygco5afhigq59nrwxkbk5r5f4ec613we3tzogtpmppu9r8f6f0jkas8aihene4ozk6rf62hvoy21llg5bkin5ri5c5ns"
      "en6awpk6bq2lu7shwuj8hjvfwjpomqhwehmtdxxq9efnp62zu2mogzfet7r8hzrcl09qoyhxcxm07vkd4uepnzgmx5h70ba3",
  };
  constexpr size_t kBlock = 16, kChoices = 18;
  std::vector<std::string> names(count);
  for (size_t i = 0; i < count; ++i) {
    size_t choice = i;
    for (std::string_view row : kBlocks) {
      names[i] += row.substr(choice % kChoices * kBlock, kBlock);
      choice /= kChoices;
    }
    names[i] += ".example";
  }
  return names;
}

}  // namespace orvane
