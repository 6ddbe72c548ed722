// The channel's messages and frames: what round-trips, what is refused and how.
#include "helper/RemoteProtocol.h"

#include "TestSupport.h"
#include "helper/Channel.h"
#include "support/KeyedArchive.h"

#include <gtest/gtest.h>

namespace quelm {
namespace {

using Strings = std::vector<std::string>;

PlistValue volumeAt(const std::string& mountPoint) {
    return PlistValue::Dict{{"$class", "QVOSVolume"},
                            {"mountPoint", mountPoint},
                            {"version", "10.12.6"},
                            {"buildVersion", "16G29"},
                            {"majorVersion", 16}};
}

PlistValue call(std::string op, PlistValue::Array args, PlistValue id = 7) {
    return PlistValue::Dict{{"id", std::move(id)}, {"op", std::move(op)}, {"args", args}};
}

const Kext kKext(FileURL::fromPath("/k/A b.kext", false));
const PlistValue kKexts = PlistValue::Array{archive(kKext)};
const std::string kInstall =
    "installWithKernelExtensions:toDestinationFolder:onTargetVolume:reply:";

TEST(RemoteProtocolTest, RepliesCarryTheirValue) {
    const std::vector results(
        300, ResultRecord{"id", "/V/bin", "Owner ID Mismatched", 501, 0, 0, "Fixed"});
    const auto encoded = encodeReplyPlist(3, results);
    const auto message = BinaryPlistDocument::open(encoded);
    ASSERT_TRUE(message);
    const auto envelope = decodeReplyEnvelope(*message);
    ASSERT_TRUE(envelope && envelope->id == 3);
    const auto value = decodeValue(*message, envelope->value, ValueType::resultArray);
    ASSERT_TRUE(value);
    EXPECT_EQ(std::get<std::vector<ResultRecord>>(*value), results);
    EXPECT_FALSE(decodeValue(*message, envelope->value, ValueType::kextArray)) << "wrong class";
    EXPECT_FALSE(decodeValue(*message, envelope->value, ValueType::string));
    const auto empty = *serializePlist(PlistValue::Dict{{"id", 3}, {"reply", PlistValue::Array{}}},
                                       PlistFormat::binary);
    EXPECT_FALSE(decodeReplyEnvelope(*BinaryPlistDocument::open(empty)));
}

TEST(RemoteProtocolTest, CallsAreRefusedWholeOrAnsweredWithTheirOperationsFailure) {
    const auto volume = volumeAt("/");
    const RemoteValue no = false;
    // The reply a call of refused arguments gets; none where the call breaks the channel.
    const std::vector<std::pair<PlistValue, std::optional<RemoteValue>>> cases{
        {PlistValue::Array{}, {}},
        {call("rm -rf /:", {}), {}},
        {call(kInstall, {kKexts, "/L/", volume}, "7"), {}},
        {call(kInstall, {kKexts, "/L/"}), {}},
        {call(kInstall, {PlistValue::Array{"/k/A.kext"}, "/L/", volume}), {}},
        {call(kInstall, {PlistValue::Array{volume}, "/L/", volume}), {}},
        {call(kInstall, {kKexts, 3, volume}), {}},
        {call(kInstall, {kKexts, "/L/", PlistValue::Dict{{"$class", "QVOSVolume"}}}), {}},
        {call("terminateHelper", {}), {}},
        {call("updateProgressWithDoubleValue:", {0.5}), {}},
        {PlistValue::Dict{{"op", "test:"}, {"args", PlistValue::Array{}}}, {}},
        {call(kInstall, {kKexts, "/../../", volume}), std::vector{kKext}},
        {call(kInstall, {kKexts, "/Library/Extensions", volume}), std::vector{kKext}},
        {call(kInstall, {kKexts, "/L/", volumeAt("relative")}), std::vector{kKext}},
        {call("removeKernelExtensions:fromVolume:backupFolder:reply:",
              {PlistValue::Array{"/L/A.kext"}, volume, "/"}),
         Strings{"/L/A.kext"}},
        {call("restoreKernelExtensionsFromBackupFolder:onTargetVolume:backupFolder:reply:",
              {"/b", volume, "relative"}),
         Strings{"/b"}},
        {call("repairWithFolder:onTargetVolume:reply:", {"/L/../", volume}), no},
        {call("repairDiskPermissionsOnTargetVolume:reply:", {volumeAt("/no/such")}),
         std::vector<ResultRecord>{}},
        {call("checkWritableTargetVolume:reply:", {volumeAt("/no/such")}),
         std::string("/no/such is not a folder that can be the target volume.")},
        {call("changeMaximumThreadsNumber:reply:", {0}), no},
        {call("uninstallRepairPermissionsFromPath:reply:", {"relative"}), no},
    };
    for (std::size_t i = 0; i < cases.size(); ++i) {
        const auto decoded = decodeCall(cases[i].first, Sender::application);
        ASSERT_EQ(decoded.has_value(), cases[i].second.has_value()) << "case " << i;
        if (decoded) {
            EXPECT_EQ(encodeReplyPlist(1, decoded->operation->refusal(decoded->arguments)),
                      encodeReplyPlist(1, *cases[i].second))
                << "case " << i;
        }
    }
    EXPECT_TRUE(decodeCall(PlistValue::Dict{{"op", "updateProgressWithDoubleValue:"},
                                            {"args", PlistValue::Array{0.5}}},
                           Sender::helper));
}

TEST(RemoteProtocolTest, CallsRoundTripThroughFramesThatNeedAllTheirBytes) {
    const std::string whole =
        encodeFrame(call(kInstall, {kKexts, "/Library/Extensions/", volumeAt("/")}));
    std::string cut = whole.substr(0, whole.size() - 1);
    EXPECT_EQ(*takeFrame(cut), std::nullopt) << "the rest is awaited";
    for (auto bytes : {std::string("\x04\x00\x00\x01", 4), std::string("\0\0\0\5", 4) + "hello"})
        EXPECT_FALSE(takeFrame(bytes)) << "oversized or not a property list";
    std::string two = whole + whole;
    EXPECT_TRUE(*takeFrame(two));
    const auto message = takeFrame(two);
    ASSERT_TRUE(message && *message);
    EXPECT_TRUE(two.empty());
    const auto decoded = decodeCall(**message, Sender::application);
    ASSERT_TRUE(decoded) << decoded.error().message;
    EXPECT_EQ(decoded->id, 7);
    EXPECT_EQ(decoded->refused, std::nullopt);
    EXPECT_EQ(std::get<std::vector<Kext>>(decoded->arguments[0]), std::vector{kKext});
    EXPECT_EQ(std::get<Volume>(decoded->arguments[2]).mountPoint(), "/");
}

} // namespace
} // namespace quelm
