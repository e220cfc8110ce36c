#include "net/ee/impairment.h"

#include <charconv>
#include <cstdio>
#include <cstdlib>

namespace snanode::net::ee {
namespace {

constexpr int64_t kMaxDelayMs = 60000;

std::string_view trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
  return s;
}

bool parse_rate(std::string_view value, double &out) {
  // std::from_chars for double, locale independent.
  const auto [end, ec] = std::from_chars(value.data(), value.data() + value.size(), out);
  return ec == std::errc() && end == value.data() + value.size() && out >= 0 && out <= 1;
}

bool parse_integer(std::string_view value, int64_t max, int64_t &out) {
  const auto [end, ec] = std::from_chars(value.data(), value.data() + value.size(), out);
  return ec == std::errc() && end == value.data() + value.size() && out >= 0 && out <= max;
}

}  // namespace

std::optional<Impairment> parse_impairment(std::string_view text, std::string *error) {
  Impairment result;
  auto fail = [&](const std::string &why) -> std::optional<Impairment> {
    if (error != nullptr) *error = why;
    return std::nullopt;
  };
  while (!trim(text).empty()) {
    const size_t comma = text.find(',');
    const std::string_view item = trim(text.substr(0, comma));
    text = comma == std::string_view::npos ? std::string_view() : text.substr(comma + 1);
    const size_t equals = item.find('=');
    if (equals == std::string_view::npos) {
      return fail("\"" + std::string(item) + "\" is not NAME=VALUE");
    }
    const std::string_view name = trim(item.substr(0, equals));
    const std::string_view value = trim(item.substr(equals + 1));
    const std::string quoted = "\"" + std::string(item) + "\"";
    if (name == "loss" || name == "dup" || name == "reorder") {
      double &rate = name == "loss"  ? result.loss
                     : name == "dup" ? result.duplication
                                     : result.reorder;
      if (!parse_rate(value, rate)) return fail(quoted + ": a rate is a number from 0 to 1");
    } else if (name == "delay_ms" || name == "reorder_hold_ms") {
      int64_t ms = 0;
      if (!parse_integer(value, kMaxDelayMs, ms)) {
        return fail(quoted + ": milliseconds from 0 to " + std::to_string(kMaxDelayMs));
      }
      (name == "delay_ms" ? result.delay : result.reorder_hold) = std::chrono::milliseconds(ms);
    } else if (name == "seed") {
      int64_t seed = 0;
      if (!parse_integer(value, INT64_MAX, seed)) return fail(quoted + ": a seed is an integer");
      result.seed = static_cast<uint64_t>(seed);
    } else {
      return fail("unknown item " + quoted +
                  " (known: loss, dup, reorder, delay_ms, reorder_hold_ms, seed)");
    }
  }
  return result;
}

std::optional<Impairment> impairment_from_environment(std::string *error) {
  const char *text = std::getenv("SNANODE_IMPAIR");
  if (text == nullptr) return Impairment{};
  std::optional<Impairment> parsed = parse_impairment(text, error);
  if (!parsed && error != nullptr) *error = "SNANODE_IMPAIR: " + *error;
  return parsed;
}

std::optional<Impairment> effective_impairment(std::string_view configured, std::string *error,
                                               bool *from_environment) {
  const bool environment = std::getenv("SNANODE_IMPAIR") != nullptr;
  if (from_environment != nullptr) *from_environment = environment;
  if (environment) return impairment_from_environment(error);
  std::optional<Impairment> parsed = parse_impairment(configured, error);
  if (!parsed && error != nullptr) *error = "[network] impair: " + *error;
  return parsed;
}

std::string impairment_text(const Impairment &impairment) {
  const auto rate = [](double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%g", value);
    return std::string(text);
  };
  return "loss " + rate(impairment.loss) + ", duplication " + rate(impairment.duplication) +
         ", reordering " + rate(impairment.reorder) + ", delay " +
         std::to_string(impairment.delay.count()) + " ms";
}

Impairer::Impairer(const Impairment &impairment)
    : settings_(impairment), state_(impairment.seed * 0x9E3779B97F4A7C15ull + 1) {}

bool Impairer::chance(double rate) {
  if (rate <= 0) return false;
  // splitmix64: small, fast, and the same sequence on every platform.
  uint64_t z = (state_ += 0x9E3779B97F4A7C15ull);
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
  z ^= z >> 31;
  return static_cast<double>(z >> 11) * 0x1.0p-53 < rate;
}

void Impairer::push(HeldDatagram datagram, TimePoint now, std::vector<HeldDatagram> &ready) {
  if (chance(settings_.loss)) {
    ++counters_.lost;
    return;
  }
  if (chance(settings_.duplication)) {
    ++counters_.duplicated;
    schedule(datagram, now, ready);
  }
  schedule(std::move(datagram), now, ready);
}

void Impairer::schedule(HeldDatagram datagram, TimePoint now, std::vector<HeldDatagram> &ready) {
  if (!held_ && chance(settings_.reorder)) {
    ++counters_.reordered;
    held_ = Delayed{now + settings_.delay + settings_.reorder_hold, std::move(datagram)};
    return;
  }
  if (settings_.delay.count() > 0) {
    ++counters_.delayed;
    delayed_.push_back({now + settings_.delay, std::move(datagram)});
  } else {
    ready.push_back(std::move(datagram));
  }
  if (held_) {
    // What was held back now goes after the datagram that overtook it.
    if (settings_.delay.count() > 0) {
      delayed_.push_back({delayed_.back().due, std::move(held_->datagram)});
    } else {
      ready.push_back(std::move(held_->datagram));
    }
    held_.reset();
  }
}

void Impairer::release(TimePoint now, std::vector<HeldDatagram> &ready) {
  while (!delayed_.empty() && delayed_.front().due <= now) {
    ready.push_back(std::move(delayed_.front().datagram));
    delayed_.pop_front();
  }
  if (held_ && held_->due <= now) {
    ready.push_back(std::move(held_->datagram));
    held_.reset();
  }
}

std::optional<Impairer::TimePoint> Impairer::next_deadline() const {
  std::optional<TimePoint> due;
  if (!delayed_.empty()) due = delayed_.front().due;
  if (held_ && (!due || held_->due < *due)) due = held_->due;
  return due;
}

}  // namespace snanode::net::ee
