// The channel's messages and frames: what round-trips and what is refused.
#include "helper/RemoteProtocol.h"

#include "TestSupport.h"
#include "helper/Channel.h"

#include <gtest/gtest.h>

namespace quelm {
namespace {

Volume volume() {
    return *unarchive<Volume>(PlistValue::Dict{{"$class", "QVOSVolume"},
                                               {"mountPoint", "/Volumes/Mac HD"},
                                               {"version", "10.12.6"},
                                               {"buildVersion", "16G29"},
                                               {"majorVersion", 16}});
}

PlistValue installCall() {
    return encodeCall({7,
                       findRemoteOperation(
                           "installWithKernelExtensions:toDestinationFolder:onTargetVolume:reply:"),
                       {std::vector<Kext>{Kext(FileURL::fromPath("/k/A b.kext", false))},
                        std::string("/Library/Extensions/"), volume()}});
}

PlistValue withEntry(PlistValue message, const std::string& key, PlistValue value) {
    auto entries = *message.dict();
    entries.insert_or_assign(key, std::move(value));
    return entries;
}

TEST(RemoteProtocolTest, EveryOperationIsInTheTableOnce) {
    EXPECT_EQ(remoteOperations().size(), 18u);
    for (const auto& operation : remoteOperations())
        EXPECT_EQ(findRemoteOperation(operation.selector), &operation);
    EXPECT_EQ(findRemoteOperation("nope:"), nullptr);
}

TEST(RemoteProtocolTest, CallsRoundTripThroughAFrame) {
    std::string buffer = encodeFrame(installCall());
    const auto message = takeFrame(buffer);
    ASSERT_TRUE(message && *message);
    EXPECT_TRUE(buffer.empty());
    const auto call = decodeCall(**message, Sender::application);
    ASSERT_TRUE(call) << call.error().message;
    EXPECT_EQ(call->id, 7);
    const auto& kexts = std::get<std::vector<Kext>>(call->arguments[0]);
    EXPECT_EQ(kexts.at(0).path(), "/k/A b.kext");
    EXPECT_EQ(std::get<Volume>(call->arguments[2]).mountPoint(), "/Volumes/Mac HD");
}

TEST(RemoteProtocolTest, RepliesCarryTheirValue) {
    ResultRecord result{"id", "/V/bin", "Owner ID Mismatched", 501, 0, 0, "Fixed"};
    const std::vector results(300, result);
    const auto encoded = encodeReplyPlist(3, results);
    const auto message = BinaryPlistDocument::open(encoded);
    ASSERT_TRUE(message);
    const auto envelope = decodeReplyEnvelope(*message);
    ASSERT_TRUE(envelope);
    EXPECT_EQ(envelope->id, 3);
    const auto value = decodeValue(*message, envelope->value, ValueType::resultArray);
    ASSERT_TRUE(value);
    EXPECT_EQ(std::get<std::vector<ResultRecord>>(*value), results);
    EXPECT_FALSE(decodeValue(*message, envelope->value, ValueType::kextArray)) << "wrong class";
    EXPECT_FALSE(decodeValue(*message, envelope->value, ValueType::string));
    // The same message as one tree: what any reader of the format sees.
    const auto tree = readBinaryPlist(encoded);
    ASSERT_TRUE(tree);
    const auto& list = tree->find("reply")->array()->front();
    ASSERT_EQ(list.array()->size(), results.size());
    EXPECT_EQ(*list.array()->back().stringForKey("$class"),
              "QVRepairPermissionsRepresentableResult");
    const auto empty = *serializePlist(PlistValue::Dict{{"id", 3}, {"reply", PlistValue::Array{}}},
                                       PlistFormat::binary);
    EXPECT_FALSE(decodeReplyEnvelope(*BinaryPlistDocument::open(empty)));
}

TEST(RemoteProtocolTest, MalformedCallsAreRefused) {
    const auto call = installCall();
    const std::vector<PlistValue> malformed{
        PlistValue::Array{},
        withEntry(call, "op", "rm -rf /:"),
        withEntry(call, "op", 5),
        withEntry(call, "id", "7"),
        withEntry(call, "args", PlistValue::Array{}),
        withEntry(call, "args", "x"),
        withEntry(call, "args",
                  PlistValue::Array{PlistValue::Array{"/k/A.kext"}, "/L/", archive(volume())}),
        withEntry(
            call, "args",
            PlistValue::Array{PlistValue::Array{archive(volume())}, "/L/", archive(volume())}),
        withEntry(call, "args", PlistValue::Array{PlistValue::Array{}, 3, archive(volume())}),
        withEntry(call, "args",
                  PlistValue::Array{PlistValue::Array{}, "/L/",
                                    PlistValue::Dict{{"$class", "QVOSVolume"}}}),
        encodeCall({std::nullopt, findRemoteOperation("test:"), {}}),
        encodeCall({1, findRemoteOperation("terminateHelper"), {}}),
        encodeCall({std::nullopt, findRemoteOperation("updateProgressWithDoubleValue:"), {0.5}}),
    };
    for (std::size_t i = 0; i < malformed.size(); ++i)
        EXPECT_FALSE(decodeCall(malformed[i], Sender::application)) << "case " << i;
    EXPECT_TRUE(decodeCall(malformed.back(), Sender::helper));
}

TEST(RemoteProtocolTest, FramesNeedAllTheirBytesAndAPropertyList) {
    std::string whole = encodeFrame(installCall());
    std::string cut = whole.substr(0, whole.size() - 1);
    EXPECT_EQ(*takeFrame(cut), std::nullopt);
    std::string oversized("\x04\x00\x00\x01", 4);
    EXPECT_FALSE(takeFrame(oversized));
    std::string garbage = std::string("\0\0\0\5", 4) + "hello";
    EXPECT_FALSE(takeFrame(garbage));
    std::string two = whole + whole;
    EXPECT_TRUE(*takeFrame(two));
    EXPECT_TRUE(*takeFrame(two));
    EXPECT_TRUE(two.empty());
}

} // namespace
} // namespace quelm
