#include "net/lu62/session_params.h"

#include <algorithm>

#include "net/formats/ebcdic_names.h"
#include "net/formats/sense_codes.h"

namespace snanode::net::lu62 {
namespace {

// Offsets of the BIND fields the negotiation looks at, for the sense data.
constexpr size_t kAtType = 1;
constexpr size_t kAtSendReceiveMode = 7;
constexpr size_t kAtSecondarySendWindow = 8;
constexpr size_t kAtSecondaryReceiveWindow = 9;
constexpr size_t kAtMaxRuSecondary = 10;
constexpr size_t kAtMaxRuPrimary = 11;
constexpr size_t kAtPrimarySendWindow = 12;
constexpr size_t kAtPrimaryReceiveWindow = 13;
constexpr size_t kAtSecurity = 23;
constexpr size_t kAtSyncLevel = 24;
constexpr size_t kAtCryptography = 26;
constexpr uint8_t kHalfDuplexFlipFlop = 2;
constexpr uint8_t kMaxWindow = 0x3F;

Bytes ebcdic(std::string_view name) {
  return ebcdic_from_name(name).value_or(Bytes{});
}

uint32_t representable(uint32_t bytes) {
  return decode_ru_size(encode_ru_size(bytes));
}

// True when `returned` is no more than `sent`, 0 counting as unlimited.
bool window_not_raised(uint8_t sent, uint8_t returned) {
  return sent == 0 || (returned != 0 && returned <= sent);
}

}  // namespace

ModeConfig service_mode_config() {
  ModeConfig mode;
  mode.name = std::string(kServiceMode);
  mode.max_ru_send = 512;
  mode.max_ru_receive = 512;
  mode.send_window = 3;
  mode.receive_window = 3;
  mode.session_limit = 2;
  mode.min_winners = 1;
  return mode;
}

uint8_t lower_window(uint8_t a, uint8_t b) {
  if (a == 0) return std::min(b, kMaxWindow);
  if (b == 0) return std::min(a, kMaxWindow);
  return std::min({a, b, kMaxWindow});
}

Bind build_bind(const ModeConfig &mode, std::string_view plu, std::string_view slu,
                bool primary_winner) {
  Bind bind;
  bind.primary_contention_winner = primary_winner;
  bind.pacing.primary_send_window = lower_window(mode.send_window, 0);
  bind.pacing.primary_receive_window = lower_window(mode.receive_window, 0);
  // The primary proposes for the secondary what it can take from it and send
  // to it; the secondary lowers these to its own limits.
  bind.pacing.secondary_send_window = lower_window(mode.receive_window, 0);
  bind.pacing.secondary_receive_window = lower_window(mode.send_window, 0);
  bind.max_ru_primary_sends = representable(mode.max_ru_send);
  bind.max_ru_secondary_sends = representable(mode.max_ru_receive);
  bind.cnos_supported = true;
  bind.parallel_sessions = true;
  bind.plu_name = ebcdic(plu);
  bind.slu_name = ebcdic(slu);
  bind.mode_name = ebcdic(mode.name);
  return bind;
}

Result<Bind> negotiate_bind(const Bind &received, const ModeConfig &local) {
  using R = Result<Bind>;
  if (received.nonnegotiable) return R::refused(sense::bind_parameter_at(kAtType));
  if (received.send_receive_mode != kHalfDuplexFlipFlop) {
    return R::refused(sense::bind_parameter_at(kAtSendReceiveMode));
  }
  if (received.lu_lu_verification) return R::refused(sense::bind_parameter_at(kAtSecurity));
  if (received.sync_level == BindSyncLevel::kSyncPoint) {
    return R::refused(sense::bind_parameter_at(kAtSyncLevel));
  }
  if (received.cryptography != 0) return R::refused(sense::bind_parameter_at(kAtCryptography));
  Bind image = received;
  Pacing &p = image.pacing;
  p.secondary_send_window = lower_window(p.secondary_send_window, local.send_window);
  p.secondary_receive_window = lower_window(p.secondary_receive_window, local.receive_window);
  p.primary_send_window = lower_window(p.primary_send_window, local.receive_window);
  p.primary_receive_window = lower_window(p.primary_receive_window, local.send_window);
  image.max_ru_secondary_sends =
      representable(std::min(received.max_ru_secondary_sends, local.max_ru_send));
  image.max_ru_primary_sends =
      representable(std::min(received.max_ru_primary_sends, local.max_ru_receive));
  return image;
}

Result<Bind> check_bind_response(const Bind &sent, const Bind &returned) {
  using R = Result<Bind>;
  const Pacing &s = sent.pacing;
  const Pacing &r = returned.pacing;
  if (!window_not_raised(s.secondary_send_window, r.secondary_send_window)) {
    return R::refused(sense::bind_parameter_at(kAtSecondarySendWindow));
  }
  if (!window_not_raised(s.secondary_receive_window, r.secondary_receive_window)) {
    return R::refused(sense::bind_parameter_at(kAtSecondaryReceiveWindow));
  }
  if (returned.max_ru_secondary_sends > sent.max_ru_secondary_sends) {
    return R::refused(sense::bind_parameter_at(kAtMaxRuSecondary));
  }
  if (returned.max_ru_primary_sends > sent.max_ru_primary_sends) {
    return R::refused(sense::bind_parameter_at(kAtMaxRuPrimary));
  }
  if (!window_not_raised(s.primary_send_window, r.primary_send_window)) {
    return R::refused(sense::bind_parameter_at(kAtPrimarySendWindow));
  }
  if (!window_not_raised(s.primary_receive_window, r.primary_receive_window)) {
    return R::refused(sense::bind_parameter_at(kAtPrimaryReceiveWindow));
  }
  if (returned.send_receive_mode != sent.send_receive_mode) {
    return R::refused(sense::bind_parameter_at(kAtSendReceiveMode));
  }
  if (returned.primary_contention_winner != sent.primary_contention_winner) {
    return R::refused(sense::bind_parameter_at(kAtSendReceiveMode));
  }
  return returned;
}

SessionParams params_from_bind(const Bind &bind, bool primary) {
  SessionParams params;
  params.primary = primary;
  params.local_winner = bind.primary_contention_winner == primary;
  const Pacing &p = bind.pacing;
  if (primary) {
    params.max_send_ru = bind.max_ru_primary_sends;
    params.max_receive_ru = bind.max_ru_secondary_sends;
    params.send_window = lower_window(p.primary_send_window, p.secondary_receive_window);
    params.receive_window = lower_window(p.primary_receive_window, p.secondary_send_window);
  } else {
    params.max_send_ru = bind.max_ru_secondary_sends;
    params.max_receive_ru = bind.max_ru_primary_sends;
    params.send_window = lower_window(p.secondary_send_window, p.primary_receive_window);
    params.receive_window = lower_window(p.secondary_receive_window, p.primary_send_window);
  }
  return params;
}

}  // namespace snanode::net::lu62
