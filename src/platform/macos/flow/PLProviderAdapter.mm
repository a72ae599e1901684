#import "platform/macos/flow/PLProviderAdapter.h"

#include <utility>

#include "platform/IdentityAnswers.h"
#include "platform/macos/base/Block.h"
#include "platform/macos/base/Values.h"
#include "platform/macos/flow/Flow.h"
#include "platform/macos/flow/NetworkExtension.h"
#include "platform/macos/foundation/Foundation.h"
#include "platform/names/HostName.h"
#include "platform/names/MarkedNames.h"

namespace {

// Runs `body` in an autorelease pool and returns the object that `body` returned, autoreleased. Without this pool, the
// temporary objects of many flows would collect in the pool of the framework's queue, which may be drained much later.
template <class Body>
auto pooled(Body body) {
  decltype(body()) result;  // not nil, because the type may forbid nil
  @autoreleasepool {
    result = [body() retain];
  }
  return [result autorelease];
}

// Limit on the bytes of a flow that the system holds back until the name is complete. The limit is enough for every TLS
// hello that the reader accepts. The head of a request may be longer: then its later bytes pass while they are read.
// Without the limit, the system would have to store the whole head, and its documentation does not say how many bytes
// it can store.
constexpr size_t kHeldLimit = orvane::ClientHelloReader::kLimit;

std::string identifier_of(NEFilterFlow* flow) { return orvane::text_of([[flow identifier] UUIDString]); }

// Asks the provider for its verdict on the flow, whose name is `name` if the framework has none. The provider compares
// whole names, byte for byte. So it is asked about the framework's name as it is, then about this name in the form of
// the list, and then about the marked names that the list may contain. A call of `ask` asks one question.
template <class Ask>
auto judge(NEFilterFlow* flow, const std::optional<std::string>& name, Ask ask) {
  const orvane::IdentityAnswers sameProcess;
  const auto given = orvane::host_of(flow, name);
  const auto listed = given ? std::optional(orvane::listed_form(*given)) : std::nullopt;
  return orvane::verdict_object(orvane::judge_under_all_names(listed, [&](std::optional<std::string> alias) {
    const bool isOwnName = !alias;
    auto verdict = ask(*orvane::flow_of(flow, name, std::move(alias)));
    using Kind = decltype(verdict.kind);
    if (!isOwnName || given == listed || verdict.kind != Kind::Allow) return verdict;
    return ask(*orvane::flow_of(flow, name, listed));
  }));
}

bool is_dns(NWEndpoint* endpoint) {
  constexpr NSInteger kDNSPort = 53;
  return [endpoint isKindOfClass:[NWHostEndpoint class]] &&
         [[static_cast<NWHostEndpoint*>(endpoint) port] integerValue] == kDNSPort;
}

// Whether the framework knows no host name of the flow, but the flow's bytes may contain it. A DNS question contains
// none, but may begin like a request. The system would hold the question back until the rest of the request arrives.
bool is_nameless(NEFilterFlow* flow) {
  if (![flow isKindOfClass:[NEFilterSocketFlow class]] || [flow URL] != nil) return false;
  auto* socket = static_cast<NEFilterSocketFlow*>(flow);
  return [socket remoteHostname] == nil && !is_dns([socket remoteEndpoint]);
}

}  // namespace

@implementation PLProviderAdapter

- (instancetype)init {
  self = [super init];
  if (self == nil) return nil;
  _provider = [self makeProvider];
  if (!_provider) {
    [self release];
    return nil;
  }
  _provider->setPlatformObject(self);
  return self;
}

- (orvane::Ref<orvane::NEFilterDataProvider>)makeProvider {
  return nullptr;
}

- (void)startFilterWithCompletionHandler:(void (^)(NSError*))completionHandler {
  @autoreleasepool {
    const orvane::Block<void(NSError*)> handler(completionHandler);
    _provider->startFilterWithCompletionHandler(
        [handler](const orvane::Ref<orvane::NSError>& error) { handler(orvane::foundation_error(error)); });
  }
}

- (void)stopFilterWithReason:(NEProviderStopReason)reason completionHandler:(void (^)(void))completionHandler {
  @autoreleasepool {
    const orvane::Block<void()> handler(completionHandler);
    _provider->stopFilterWithReason(static_cast<orvane::NEProviderStopReason>(reason), handler);
  }
}

- (NEFilterNewFlowVerdict*)handleNewFlow:(NEFilterFlow*)flow {
  return pooled([&] {
    return judge(flow, std::nullopt,
                 [&](const orvane::NEFilterFlow& asked) { return _provider->handleNewFlow(asked); });
  });
}

- (NEFilterDataVerdict*)handleOutboundDataFromFlow:(NEFilterFlow*)flow
                              readBytesStartOffset:(NSUInteger)offset
                                         readBytes:(NSData*)readBytes {
  return pooled([&] {
    const std::span<const uint8_t> bytes(static_cast<const uint8_t*>([readBytes bytes]), [readBytes length]);
    std::optional<std::string> name;
    if (is_nameless(flow)) {
      orvane::FlowNames::Result found = _names.read(identifier_of(flow), offset, bytes);
      if (found.state == orvane::NameState::Open) {
        const size_t passed = offset + bytes.size() > kHeldLimit ? bytes.size() : 0;
        return [NEFilterDataVerdict dataVerdictWithPassBytes:passed peekBytes:NEFilterFlowBytesMax];
      }
      if (found.state == orvane::NameState::Known) name = std::move(found.name);
    }
    return judge(flow, name, [&](const orvane::NEFilterFlow& asked) {
      return _provider->handleOutboundDataFromFlow(asked, offset, bytes);
    });
  });
}

- (NEFilterDataVerdict*)handleOutboundDataCompleteForFlow:(NEFilterFlow*)flow {
  return pooled([&] {
    _names.forget(identifier_of(flow));
    return judge(flow, std::nullopt, [&](const orvane::NEFilterFlow& asked) {
      return _provider->handleOutboundDataCompleteForFlow(asked);
    });
  });
}

@end
