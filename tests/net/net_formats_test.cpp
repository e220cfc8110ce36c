// The wire formats against units written byte by byte from the published
// layouts: each golden unit decodes to what it means and encodes back to the
// same bytes; malformed units are refused with the sense code LU 6.2 uses.
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "net/formats/bind.h"
#include "net/formats/biu.h"
#include "net/formats/cnos.h"
#include "net/formats/control_rus.h"
#include "net/formats/ebcdic_names.h"
#include "net/formats/fmh5.h"
#include "net/formats/fmh7.h"
#include "net/formats/gds.h"
#include "net/formats/nlp.h"
#include "net/formats/pip.h"
#include "net/formats/sense_codes.h"
#include "net/formats/thdr_segments.h"
#include "net/formats/xid3.h"
#include "net/golden_units.h"

namespace snanode::net {
namespace {

Bytes ebcdic(const char *name) {
  return ebcdic_from_name(name).value();
}

std::string name_of(const Bytes &bytes) {
  return name_from_ebcdic(bytes).value_or("<not a name>");
}

using golden::from_hex;

// The decoded value, after checking that it encodes back to `golden`.
template <class T, class Encode>
T reencodes(const Result<T> &decoded, Encode encode, const Bytes &golden) {
  EXPECT_TRUE(decoded) << std::hex << decoded.sense();
  if (!decoded) return T{};
  Bytes out;
  (void)encode(decoded.value(), out);
  EXPECT_EQ(out, golden);
  return decoded.value();
}

template <class T>
Result<T> from_reader(Result<T> (*decode)(ByteReader &), ByteSpan bytes) {
  ByteReader in(bytes);
  return decode(in);
}

Bytes patched(ByteSpan base, size_t at, uint8_t value) {
  Bytes b(base.begin(), base.end());
  b[at] = value;
  return b;
}

Bytes rh_bytes(const Rh &rh) {
  Bytes out;
  ByteWriter w(out);
  encode_rh(rh, w);
  return out;
}

TEST(NetFormats, GoldenBindDecodesToItsFieldsAndReencodes) {
  Result<Bind> bind = decode_bind(golden::kBind);
  ASSERT_TRUE(bind) << std::hex << bind.sense();
  // Negotiable; multiple-RU chains, both responses; FM headers, rule 1; HDX-FF,
  // primary first; window 7, adaptive, staged; RU sizes; security accepted.
  const Bind &b = bind.value();
  EXPECT_EQ((std::vector<unsigned>{
                b.nonnegotiable, b.primary.multiple_ru_chains, b.primary.chain_response_protocol,
                b.fm_headers, b.bracket_termination_rule1, b.send_receive_mode,
                b.primary_sends_first, b.pacing.secondary_send_window, b.pacing.adaptive,
                b.pacing.primary_staging, b.max_ru_secondary_sends, b.max_ru_primary_sends,
                b.access_security_accepted, b.already_verified_accepted, b.lu_lu_verification}),
            (std::vector<unsigned>{0, 1, 3, 1, 1, 2, 1, 7, 1, 1, 256, 256, 1, 1, 0}));
  EXPECT_EQ(b.sync_level, BindSyncLevel::kConfirm);
  EXPECT_EQ(name_of(b.plu_name) + " " + name_of(b.mode_name) + " " + name_of(b.slu_name),
            "NETA.LUA #INTER NETB.LUB");

  Bind built;
  built.plu_name = ebcdic("NETA.LUA");
  built.mode_name = ebcdic("#INTER");
  built.slu_name = ebcdic("NETB.LUB");
  Bytes out;
  ASSERT_TRUE(encode_bind(built, out));
  EXPECT_EQ(out, golden::kBind);
  EXPECT_EQ(bind.value(), built);

  // Extra user data, cryptography options and control vectors survive a round trip.
  built.other_user_data.push_back({kUserDataSessionInstance, {0xF0, 1, 2, 3, 4}});
  built.control_vectors = {0x2C, 0x03, 0x02, 0x01, 0xC1};
  built.cryptography_options = {0xAA, 0xBB};
  out.clear();
  ASSERT_TRUE(encode_bind(built, out));
  EXPECT_EQ(out[7] & 0x02, 0x02);
  EXPECT_EQ(decode_bind(out).value(), built);
}

TEST(NetFormats, RuSizesRoundDownToTheirEncodedForm) {
  const struct {
    uint32_t bytes;
    uint8_t code;
    uint32_t decoded;
  } cases[] = {{256, 0x85, 256},
               {512, 0x86, 512},
               {1024, 0x87, 1024},
               {3840, 0xF8, 3840},
               {1000, 0xF6, 960},
               {0, 0x80, 8},
               {7, 0x80, 8},
               {9, 0x90, 9},
               {15u << 15, 0xFF, 15u << 15},
               {1u << 30, 0xFF, 15u << 15}};  // clang-format keeps
  for (const auto &c : cases) {
    EXPECT_EQ(encode_ru_size(c.bytes), c.code) << c.bytes;
    EXPECT_EQ(decode_ru_size(c.code), c.decoded) << c.bytes;
  }
  EXPECT_EQ(decode_ru_size(0x00), decode_ru_size(0xFF));  // "no maximum"
}

TEST(NetFormats, GoldenAttachesDecodeAndReencode) {
  ByteReader in(golden::kAttachWithData);
  Result<Attach> attach = decode_attach(in);
  ASSERT_TRUE(attach) << std::hex << attach.sense();
  EXPECT_EQ(attach->resource, ConversationResource::kMappedHalfDuplex);
  EXPECT_EQ(attach->sync_level, AttachSyncLevel::kNone);
  EXPECT_EQ(name_of(attach->tp_name), "HELLO");
  EXPECT_FALSE(attach->user_id);
  ASSERT_TRUE(attach->luw);
  EXPECT_EQ(name_of(attach->luw->lu_name), "NETA.LUA");
  EXPECT_EQ(attach->luw->instance[5], 1);
  EXPECT_EQ(attach->luw->sequence, 1);
  EXPECT_TRUE(attach->conversation_correlator.empty());
  // The mapped record after the header is left in the reader.
  EXPECT_EQ(in.offset(), 35u);
  Result<Record> record = read_gds(in);
  ASSERT_TRUE(record);
  EXPECT_EQ(record->id, kGdsApplicationData);
  EXPECT_EQ(name_of(record->data), "HELLO");
  Bytes out;
  ASSERT_TRUE(encode_attach(attach.value(), out));
  EXPECT_EQ(out, Bytes(golden::kAttachWithData.begin(), golden::kAttachWithData.begin() + 35));

  ByteReader secure_in(golden::kAttachWithPassword);
  const Attach secure =
      reencodes(decode_attach(secure_in), encode_attach, golden::kAttachWithPassword);
  EXPECT_TRUE(secure_in.at_end());
  EXPECT_EQ(secure.resource, ConversationResource::kBasicHalfDuplex);
  EXPECT_EQ(secure.sync_level, AttachSyncLevel::kConfirm);
  EXPECT_EQ(
      name_of(secure.user_id.value_or(Bytes{})) + "/" + name_of(secure.password.value_or(Bytes{})),
      "USER1/SECRET");
  EXPECT_FALSE(secure.luw);

  // PIP after an Attach: a X'12F5' variable of X'12E2' subfields.
  Bytes pip;
  append_pip({ebcdic("ONE"), {}, ebcdic("THREE")}, pip);
  EXPECT_EQ(pip, golden::kPip);
  EXPECT_EQ(from_reader(read_pip, pip).value(),
            (std::vector<Bytes>{ebcdic("ONE"), {}, ebcdic("THREE")}));
  // The second subfield of another ID.
  EXPECT_EQ(from_reader(read_pip, patched(pip, 14, 0xE3)).sense(),
            sense::kPipNotSpecifiedCorrectly);

  // Blanking touches the password bytes only.
  Bytes blanked = golden::kAttachWithPassword, expected = blanked;
  std::fill(expected.begin() + 25, expected.begin() + 31, 0x40);
  EXPECT_EQ(blank_attach_password(blanked, 0x40), Blanking::kBlanked);
  EXPECT_EQ(blanked, expected);
  // Cut inside the security field, the rest is blanked.
  Bytes cut(golden::kAttachWithPassword.begin(), golden::kAttachWithPassword.begin() + 27);
  EXPECT_EQ(blank_attach_password(cut, 0x40), Blanking::kBlankedRemainder);
  EXPECT_EQ(cut[25] << 8 | cut[26], 0x4040);
}

TEST(NetFormats, GoldenErrorDescriptionsAndControlRusDecodeAndReencode) {
  const auto put = [](auto encode) {
    return [encode](const auto &v, Bytes &o) { return encode(v, o), true; };
  };
  const ErrorDescription abend =
      reencodes(from_reader(decode_error_description, golden::kFmh7Abend),
                put(encode_error_description), golden::kFmh7Abend);
  EXPECT_EQ(abend.sense, sense::kDeallocateAbendProgram);
  EXPECT_FALSE(abend.log_data_follows);

  ByteReader log_in(golden::kFmh7WithLog);
  Result<ErrorDescription> with_log = decode_error_description(log_in);
  ASSERT_TRUE(with_log);
  EXPECT_EQ(with_log->sense, sense::kProgramErrorNoTruncation);
  EXPECT_TRUE(with_log->log_data_follows);
  Result<Bytes> log = read_error_log(log_in);
  ASSERT_TRUE(log);
  EXPECT_EQ(name_of(log.value()), "HELLO");
  Bytes out;
  encode_error_description(with_log.value(), out);
  append_error_log(log.value(), out);
  EXPECT_EQ(out, golden::kFmh7WithLog);

  const Unbind unbind =
      reencodes(decode_unbind(golden::kUnbindNormal), put(encode_unbind), golden::kUnbindNormal);
  EXPECT_EQ(unbind.type, decision::kUnbindNormal);
  EXPECT_EQ(unbind.sense, 0u);
  EXPECT_EQ(decode_unbind(from_hex("32 FE 0835000A 350100")).value(),
            (Unbind{0xFE, sense::bind_parameter_at(10), {0x35, 0x01, 0x00}}));
  reencodes(decode_signal(golden::kSignalRequestToSend), put(encode_signal),
            golden::kSignalRequestToSend);
  EXPECT_EQ(
      reencodes(decode_lustat(golden::kLustatNull), put(encode_lustat), golden::kLustatNull).status,
      decision::kLustatNullStatus);
  EXPECT_EQ(decode_ipm(golden::kIpmSolicited).value(), (Ipm{IpmType::kSolicited, false, 7}));
  reencodes(Result<Ipm>(Ipm{IpmType::kResetAcknowledgement, true, 0x1234}), put(encode_ipm),
            from_hex("A0 1234"));
  const Bytes negative = from_hex("08210002 31");
  EXPECT_EQ(reencodes(decode_negative_response(negative), put(encode_negative_response), negative),
            (NegativeResponse{sense::kBindModeNameUnknown, kRequestBind}));

  const Cnos cnos = reencodes(decode_cnos(golden::kCnos), encode_cnos, golden::kCnos);
  EXPECT_EQ(cnos.action, decision::kCnosActionSet);
  EXPECT_EQ(cnos.max_sessions, 8);
  EXPECT_EQ(cnos.source_min_winners, 4);
  EXPECT_EQ(name_of(cnos.mode_name), "#INTER");
}

TEST(NetFormats, GoldenDatagramDecodesLayerByLayerAndReencodes) {
  ByteReader in(golden::kDataDatagram);
  Result<LlcHeader> llc = decode_llc(in);
  ASSERT_TRUE(llc);
  EXPECT_EQ(llc.value(), LlcHeader{});
  Result<NlpView> nlp = decode_nlp(in.rest());
  ASSERT_TRUE(nlp) << std::hex << nlp.sense();
  EXPECT_EQ(nlp->nhdr.mode, SwitchingMode::kAnr);
  EXPECT_EQ(nlp->nhdr.priority, Priority::kHigh);
  EXPECT_EQ(nlp->nhdr.labels, from_hex("8001"));
  EXPECT_EQ(nlp->thdr.tcid, (Tcid{1, 2, 3, 4, 5, 6, 7, 8}));
  EXPECT_TRUE(nlp->thdr.start_of_message && nlp->thdr.end_of_message);
  EXPECT_EQ(nlp->thdr.bsn, 0x1000u);
  EXPECT_EQ(nlp->data.size(), 24u);
  Result<BiuView> biu = decode_biu(nlp->data);
  ASSERT_TRUE(biu);
  EXPECT_EQ(biu->th.mpf, decision::kMpfWholeBiu);
  EXPECT_FALSE(biu->th.expedited);
  EXPECT_EQ(biu->th.snf, 2);
  EXPECT_EQ(biu->th.session_address, (SessionAddress{0x80, 0, 0, 0, 0, 0, 0, 1}));
  EXPECT_EQ(biu->rh.form(), ResponseForm::kRqe1);
  EXPECT_TRUE(biu->rh.bci && biu->rh.eci);
  EXPECT_EQ(classify(biu.value()), RuKind::kData);

  Bytes out;
  ByteWriter w(out);
  encode_llc(llc.value(), w);
  Bytes biu_bytes;
  encode_biu(biu->th, biu->rh, biu->ru, biu_bytes);
  ASSERT_TRUE(encode_nlp(nlp->nhdr, nlp->thdr, biu_bytes, out));
  EXPECT_EQ(out, golden::kDataDatagram);
}

TEST(NetFormats, GoldenXid3DecodesAndReencodes) {
  Result<Xid3> xid = decode_xid3(golden::kXid3);
  ASSERT_TRUE(xid) << std::hex << xid.sense();
  const Xid3 &x = xid.value();
  EXPECT_EQ((std::vector<unsigned>{x.node_type, x.id_block, x.id_number, x.standalone_bind,
                                   x.whole_bind_generated, x.whole_bind_required, x.cp_services,
                                   x.cp_cp_sessions, x.network_node,
                                   x.negotiation_complete_supported, x.max_btu}),
            (std::vector<unsigned>{2, 0x05D, 0x12345, 1, 1, 1, 1, 1, 0, 1, 1461}));
  EXPECT_EQ(x.state, XidExchangeState::kPrenegotiation);
  EXPECT_EQ(x.link_station_role, decision::kXidRoleNegotiable);
  ASSERT_EQ(xid->control_vectors.size(), 1u);
  EXPECT_EQ(xid->control_vectors[0], network_name_cv(kNetworkNameCp, ebcdic("NETA.CPA")));

  Xid3 built;
  built.id_block = 0x05D;
  built.id_number = 0x12345;
  built.cp_cp_sessions = true;
  built.control_vectors.push_back(network_name_cv(kNetworkNameCp, ebcdic("NETA.CPA")));
  Bytes out;
  ASSERT_TRUE(encode_xid3(built, out));
  EXPECT_EQ(out, golden::kXid3);

  // A DLC section of another size, the network name CV past the end, the
  // length past the I-field, and format 1.
  EXPECT_EQ(decode_xid3(patched(golden::kXid3, 18, 0x0A)).sense(), decision::kSenseXidFormat | 18);
  EXPECT_EQ(decode_xid3(patched(golden::kXid3, 30, 0x0A)).sense(), decision::kSenseXidFormat | 29);
  Bytes bad = patched(golden::kXid3, 1, 0x29);
  EXPECT_EQ(decode_xid3(bad).sense(), decision::kSenseXidFormat | 1);
  bad[0] = 0x12;
  EXPECT_EQ(decode_xid3(bad).sense(), decision::kSenseXidFormat);
}

TEST(NetFormats, GoldenTransportSegmentsDecodeAndReencode) {
  Result<std::vector<OptionalSegment>> segments = split_segments(golden::kSegments);
  ASSERT_TRUE(segments);
  ASSERT_EQ(segments->size(), 3u);
  const StatusReport status{true, false, 3, 2, 0x1000, {{0x1100, 0x11FF}}};
  EXPECT_EQ(decode_status(segments->at(0)).value(), status);
  const Arb arb{ArbMessage::kRateRequest, 0, true, 1, 3, 0, 1000, 2000, 0, 0};
  EXPECT_EQ(decode_arb(segments->at(1)).value(), arb);
  EXPECT_EQ(decode_connection_fault(segments->at(2)).value(), sense::kLinkFailure);
  EXPECT_FALSE(decode_arb(segments->at(0)));  // a status segment is not an ARB segment
  Bytes out;
  append_status(status, out);
  append_arb(arb, out);
  append_connection_fault(sense::kLinkFailure, out);
  EXPECT_EQ(out, golden::kSegments);

  Bytes bad = golden::kSegments;
  bad[3] = 0x02;  // two gaps in a segment with room for one
  EXPECT_EQ(decode_status(split_segments(bad)->at(0)).sense(), decision::kSenseNlpHeader);
  bad[28] = 0x00;  // a segment of no words
  EXPECT_EQ(split_segments(bad).sense(), decision::kSenseNlpHeader);
  bad[28] = 0x09;  // a segment past the options
  EXPECT_EQ(split_segments(bad).sense(), decision::kSenseNlpHeader);
}

TEST(NetFormats, RhIndicatorsSitAtTheirMasks) {
  const struct {
    bool Rh::*field;
    bool response;
    int byte;
    uint8_t mask;
  } bits[] = {
      {&Rh::response, true, 0, 0x80}, {&Rh::fi, false, 0, 0x08},   {&Rh::sdi, true, 0, 0x04},
      {&Rh::bci, false, 0, 0x02},     {&Rh::eci, false, 0, 0x01},  {&Rh::dr1, false, 1, 0x80},
      {&Rh::lcci, false, 1, 0x40},    {&Rh::dr2, false, 1, 0x20},  {&Rh::eri, false, 1, 0x10},
      {&Rh::rti, true, 1, 0x10},      {&Rh::rlwi, false, 1, 0x04}, {&Rh::qri, false, 1, 0x02},
      {&Rh::pi, false, 1, 0x01},      {&Rh::bbi, false, 2, 0x80},  {&Rh::ebi, false, 2, 0x40},
      {&Rh::cdi, false, 2, 0x20},     {&Rh::csi, false, 2, 0x08},  {&Rh::edi, false, 2, 0x04},
      {&Rh::pdi, false, 2, 0x02},     {&Rh::cebi, false, 2, 0x01}};
  for (const auto &bit : bits) {
    Rh rh;
    rh.bci = rh.eci = false;
    rh.response = bit.response;
    rh.*bit.field = true;
    Bytes expected = {static_cast<uint8_t>(bit.response ? 0x80 : 0), 0, 0};
    expected[bit.byte] |= bit.mask;
    const Bytes out = rh_bytes(rh);
    EXPECT_EQ(out, expected) << bit.byte << "/" << int(bit.mask);
    EXPECT_EQ(from_reader(decode_rh, out).value(), rh);
  }
  for (RuCategory category :
       {RuCategory::kFmd, RuCategory::kNc, RuCategory::kDfc, RuCategory::kSc}) {
    EXPECT_EQ(rh_bytes(Rh{.category = category})[0] & 0x60, static_cast<int>(category) << 5);
  }
  // The responses LU 6.2 sends: +RSP(BIND), −RSP(BIND), +RSP to a definite
  // request, −RSP to an FMD chain.
  Rh bind_rq{.category = RuCategory::kSc, .fi = true}, confirm, data;
  bind_rq.set_form(ResponseForm::kRqd1);
  confirm.set_form(ResponseForm::kRqd3);
  data.set_form(ResponseForm::kRqe1);
  EXPECT_EQ(rh_bytes(response_rh(bind_rq, false)), from_hex("EB8000"));
  EXPECT_EQ(rh_bytes(response_rh(bind_rq, true)), from_hex("EF9000"));
  EXPECT_EQ(rh_bytes(response_rh(confirm, false)), from_hex("83A000"));
  EXPECT_EQ(rh_bytes(response_rh(data, true)), from_hex("879000"));
}

TEST(NetFormats, RequestIndicatorRulesRefuseWithTheirSense) {
  const struct {
    void (*set)(Rh &);
    uint32_t sense;
  } cases[] = {
      {[](Rh &rh) { rh.bbi = rh.cdi = true; }, 0u},
      {[](Rh &rh) { rh.bci = false, rh.bbi = true; }, sense::kBeginBracketNotAllowed},
      {[](Rh &rh) { rh.eci = false, rh.cdi = true; }, sense::kLastInChainIndicatorsInvalid},
      {[](Rh &rh) { rh.cdi = rh.cebi = true; }, sense::kLastInChainIndicatorsInvalid},
      {[](Rh &rh) { rh.set_form(ResponseForm::kRqd1), rh.cdi = true; },
       sense::kResponseRequestIndicatorsInvalid},
      {[](Rh &rh) { rh.dr1 = false; }, sense::kResponseRequestIndicatorsInvalid},
      {[](Rh &rh) { rh.csi = true; }, sense::kAlternateCodeNotSupported},
      {[](Rh &rh) { rh.edi = true; }, sense::kEncipheredDataIndicatorInvalid},
      {[](Rh &rh) { rh.pdi = true; }, sense::kPaddedDataIndicatorInvalid}};
  for (const auto &c : cases) {
    Rh rh;
    rh.set_form(ResponseForm::kRqe1);
    c.set(rh);
    EXPECT_EQ(check_request_indicators(rh), c.sense) << std::hex << c.sense;
  }
}

TEST(NetFormats, RecordsReassembleAcrossRusAndSegments) {
  for (size_t step : {size_t{1}, size_t{3}, size_t{100}}) {
    RecordAssembler assembler(RecordFraming::kMapped);
    std::vector<Record> records;
    for (const Bytes *ru : {&golden::kChainFirst, &golden::kChainMiddle, &golden::kChainLast}) {
      for (size_t at = 0; at < ru->size(); at += step) {
        const size_t n = std::min(step, ru->size() - at);
        ASSERT_EQ(assembler.feed(ByteSpan(*ru).subspan(at, n), records), 0u);
      }
    }
    ASSERT_EQ(records.size(), 1u) << step;
    EXPECT_EQ(records[0].id, kGdsApplicationData);
    EXPECT_EQ(name_of(records[0].data), "ABCDEFGHIJKLMNOP");
    EXPECT_TRUE(assembler.at_record_boundary());
  }

  // A record too long for one LL is sent in segments and comes back whole.
  Bytes big(70000);
  for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<uint8_t>(i * 7);
  for (RecordFraming framing : {RecordFraming::kMapped, RecordFraming::kBasic}) {
    Bytes stream;
    if (framing == RecordFraming::kMapped) {
      append_gds(kGdsApplicationData, big, stream);
      append_gds(kGdsNullData, {}, stream);
      EXPECT_EQ(load_u16(stream.data()), 0xFFFF);  // first segment: full and continued
    } else {
      append_basic_record(big, stream);
      append_basic_record({}, stream);
    }
    RecordAssembler assembler(framing);
    std::vector<Record> records;
    ASSERT_EQ(assembler.feed(stream, records), 0u);
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].data, big);
    EXPECT_TRUE(records[1].data.empty());
    if (framing == RecordFraming::kMapped) {
      EXPECT_EQ(records[0].id, kGdsApplicationData);
      EXPECT_EQ(records[1].id, kGdsNullData);
      ByteReader in(stream);
      EXPECT_EQ(read_gds(in).value().data, big);
    }
  }

  // An LL too short for its own header breaks the stream for good.
  for (const Bytes &bad : {Bytes{0x00, 0x01}, Bytes{0x80, 0x00}, Bytes{0x00, 0x03, 0x12}}) {
    RecordAssembler assembler(RecordFraming::kMapped);
    std::vector<Record> records;
    EXPECT_EQ(assembler.feed(bad, records), decision::kSenseRecordFraming);
    EXPECT_EQ(assembler.feed(golden::kChainFirst, records), decision::kSenseRecordFraming);
    EXPECT_TRUE(records.empty());
  }
}

// Each malformed unit with the sense code the receiver answers it with.
TEST(NetFormats, MalformedUnitsAreRefusedWithTheirSense) {
  auto bind_with = [](size_t at, uint8_t value) {
    return decode_bind(patched(golden::kBind, at, value)).sense();
  };
  auto bind_cut = [](size_t size) {
    return decode_bind(ByteSpan(golden::kBind).first(size)).sense();
  };
  auto attach_with = [](size_t at, uint8_t value, const Bytes &base = golden::kAttachWithData) {
    return from_reader(decode_attach, patched(base, at, value)).sense();
  };
  auto attach_cut = [](size_t size) {
    return from_reader(decode_attach, ByteSpan(golden::kAttachWithData).first(size)).sense();
  };
  const struct {
    const char *what;
    uint32_t got;
    uint32_t expected;
  } cases[] = {
      {"BIND FM profile", bind_with(2, 0x04), sense::bind_parameter_at(2)},
      {"BIND TS profile", bind_with(3, 0x03), sense::bind_parameter_at(3)},
      {"BIND format", bind_with(1, 0x10), sense::bind_parameter_at(1)},
      {"BIND RU size", bind_with(10, 0x45), sense::bind_parameter_at(10)},
      {"BIND LU type", bind_with(14, 0x02), sense::bind_parameter_at(14)},
      {"BIND sync level", bind_with(24, 0x60), sense::bind_parameter_at(24)},
      {"BIND cut in fixed part", bind_cut(20), sense::bind_parameter_at(20)},
      {"BIND PLU name past end", bind_cut(30), sense::bind_parameter_at(27)},
      {"BIND PLU name too long", bind_with(27, 18), sense::kBindInvalidSessionParameters | 27},
      {"BIND user data key", bind_with(37, 0x01), sense::bind_parameter_at(37)},
      {"BIND subfield past user data", bind_with(38, 0x09), sense::bind_parameter_at(38)},
      {"BIND control vectors missing", bind_with(7, 0xA3), sense::bind_parameter_at(56)},
      {"Attach length past RU", attach_with(0, 0x40), sense::kFmhLengthWrong},
      {"Attach length short", attach_with(0, 0x09), sense::kFmhLengthWrong},
      {"Attach cut", attach_cut(20), sense::kFmhLengthWrong},
      {"Attach command", attach_with(3, 0xFE), sense::kFmhCommandNotRecognized},
      {"Attach type", attach_with(1, 0x06), sense::kFmhTypeNotSupported},
      {"Attach fixed length", attach_with(5, 0x02), sense::kFixedParameterLengthInvalid},
      {"Attach resource", attach_with(6, 0xD4), sense::kInvalidAttachParameter},
      {"Attach sync level", attach_with(8, 0xC0), sense::kInvalidAttachParameter},
      {"Attach TP name empty", attach_with(9, 0x00), sense::kInvalidAttachParameter},
      {"Attach security past end", attach_with(15, 0x30), sense::kAccessSecurityLengthWrong},
      {"Attach LUW name length", attach_with(17, 0x09), sense::kInvalidLuwIdentifier},
      {"Attach correlator too long", attach_with(34, 0x09), sense::kInvalidAttachParameter},
      {"Attach password, verified", attach_with(4, 0x80, golden::kAttachWithPassword),
       sense::kSecurityNotValid},
      {"Attach profile, no password", attach_with(24, 0x00, golden::kAttachWithPassword),
       sense::kSecurityNotValid},
      {"Attach subfield past security", attach_with(16, 0x09, golden::kAttachWithPassword),
       sense::kAccessSecurityLengthWrong},
      {"FMH-7 length",
       from_reader(decode_error_description, patched(golden::kFmh7Abend, 0, 8)).sense(),
       sense::kFmhLengthWrong},
      {"SIG code", decode_signal(from_hex("C9 0002 0001")).sense(), sense::kParameterError},
      {"SIG short", decode_signal(Bytes{0xC9, 0x00, 0x01}).sense(), decision::kSenseRuLength},
      {"LUSTAT short", decode_lustat(Bytes{0x04, 0x00}).sense(), decision::kSenseRuLength},
      {"UNBIND cut sense", decode_unbind(Bytes{0x32, 0x01, 0x00}).sense(),
       decision::kSenseRuLength},
      {"IPM type", decode_ipm(Bytes{0xC0, 0x00, 0x01}).sense(), sense::kParameterError},
      {"-RSP short", decode_negative_response(Bytes{0x08, 0x46}).sense(), decision::kSenseRuLength},
      {"CNOS mode name", decode_cnos(patched(golden::kCnos, 16, 0x07)).sense(),
       decision::kSenseRuLength},
      {"CNOS session count", decode_cnos(patched(golden::kCnos, 9, 0x80)).sense(),
       sense::kParameterError},
      {"TH FID", decode_biu(Bytes(15, 0x20)).sense(), decision::kSenseInvalidFid},
      {"TH short", decode_biu(Bytes(11, 0x5C)).sense(), decision::kSenseTooShortTh},
      {"RH short", decode_biu(Bytes(14, 0x5C)).sense(), decision::kSenseTooShortRh},
      {"NLP no X'FF'", decode_nlp(Bytes{0xC4, 0x00, 0x80, 0x01}).sense(),
       decision::kSenseNlpHeader},
      {"NLP DLF", decode_nlp(patched(ByteSpan(golden::kDataDatagram).subspan(3), 21, 0x19)).sense(),
       decision::kSenseNlpHeader},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(c.got, c.expected) << c.what << std::hex << ": got " << c.got;
  }
}

}  // namespace
}  // namespace snanode::net
