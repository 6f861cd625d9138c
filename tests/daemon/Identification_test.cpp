// The map's identification section: how it is checked, and what Read Device
// Identification answers from it, static texts and data-store sources alike,
// whether or not the map can be served.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "DaemonTestSupport.h"
#include "EmbeddedDefaults.h"
#include "ResponseEncoder.h"

namespace tarsel::daemon {
namespace {

using testing::TestDaemon;
using Bytes = std::vector<std::uint8_t>;

char const* const kEntry = R"({"name": "t", "table": "holding-registers", "address": 0,
  "encoder": "int16", "source": {"device": 2, "channel": "T"}})";

std::string mapWith(std::string const& identification) {
    return std::string(R"({"entries": [)") + kEntry + R"(], "identification": )" + identification +
           "}";
}

std::string const kIdentification = R"({
  "VendorName": {"text": "Gateway maker"},
  "ProductCode": {"text": "GW-1"},
  "MajorMinorRevision": {"text": "1.0"},
  "ProductName": {"source": {"device": 2, "attribute": "manufacturer"}, "text": "unknown"},
  "ModelName": {"source": {"device": "UPS", "attribute": "model"}},
  "UserApplicationName": {"source": {"device": 2, "channel": "App"}}
})";

// Not available yet (operating status 2): identification is answered anyway.
char const* const kStarting = R"({"devices": [{"id": 2, "name": "UPS",
  "attributes": {"manufacturer": "Maker", "model": "RT 3000"},
  "channels": {"PowerDistribution.Status.OperatingStatus": {"uint32": 2}, "T": 5,
               "App": "ups-map"}}]})";

std::vector<std::string> errorsOf(std::string const& text) {
    try {
        parseRegisterMap(text);
    } catch (MapError const& error) {
        return error.errors();
    }
    ADD_FAILURE() << "the map was accepted";
    return {};
}

std::string joined(std::vector<std::string> const& errors) {
    std::string text;
    for (auto const& error : errors) {
        text += error + "\n";
    }
    return text;
}

/* The objects of an answer body, by id. */
std::map<int, std::string> objectsOf(Bytes const& body) {
    std::map<int, std::string> objects;
    std::size_t at = 6;
    while (at + 2 <= body.size()) {
        std::size_t const size = body[at + 1];
        objects[body[at]] = std::string(body.begin() + static_cast<std::ptrdiff_t>(at + 2),
                                        body.begin() + static_cast<std::ptrdiff_t>(at + 2 + size));
        at += 2 + size;
    }
    return objects;
}

Bytes identify(std::uint8_t code, std::uint8_t object) {
    return testing::frame({0x2B, 0x0E, code, object});
}

TEST(IdentificationTest, SectionGivesTheObjectsInIdOrderWithTextsAndSources) {
    RegisterMapDefinition const map = parseRegisterMap(mapWith(kIdentification));
    ASSERT_EQ(map.identification.size(), 6u);
    EXPECT_EQ(map.identification[0].id, 0x00);
    EXPECT_EQ(map.identification[0].text, "Gateway maker");
    EXPECT_FALSE(map.identification[0].source);
    EXPECT_EQ(map.identification[3].id, 0x04);
    ASSERT_TRUE(map.identification[3].source);
    EXPECT_EQ(map.identification[3].source->kind, SourceKind::Attribute);
    EXPECT_EQ(map.identification[3].source->attribute, cdsapi::AttributeManufacturer);
    EXPECT_EQ(map.identification[3].text, "unknown");
}

TEST(IdentificationTest, EveryErrorOfTheSectionIsListedWithItsPath) {
    auto const errors = errorsOf(mapWith(R"({
      "VendorName": {"text": 5},
      "Colour": {"text": "red"},
      "ProductName": {"source": {"device": 2, "channel": "X", "alarm": "trigger"}},
      "ModelName": {"source": {"device": 2, "channel": "X", "data": "alarm-level"}},
      "VendorUrl": {"txt": "x"},
      "UserApplicationName": {"text": ")" +
                                         std::string(245, 'a') + R"("}
    })"));
    std::string const text = joined(errors);
    EXPECT_NE(text.find("identification.VendorName.text"), std::string::npos) << text;
    EXPECT_NE(text.find("identification.Colour: unknown identification object; expected "
                        "VendorName, ProductCode"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("identification.ProductName.source.alarm: an alarm cannot identify"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("identification.ModelName.source.data: only a channel's value"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("identification.VendorUrl.txt: unknown field of an identification object"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("identification.VendorUrl: expected \"text\", \"source\" or both"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("identification.UserApplicationName.text: 245 bytes do not fit in one "
                        "answer (at most 244)"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("missing object \"ProductCode\""), std::string::npos) << text;
    EXPECT_NE(text.find("missing object \"MajorMinorRevision\""), std::string::npos) << text;
}

TEST(IdentificationTest, SourceErrorsAreThoseOfTheMapsEntries) {
    auto const errors = errorsOf(mapWith(R"({"VendorName": {"source": {"channel": "X"}},
      "ProductCode": {"text": "a"}, "MajorMinorRevision": {"text": "1"}})"));
    EXPECT_NE(joined(errors).find("identification.VendorName.source: missing field \"device\""),
              std::string::npos)
        << joined(errors);
}

TEST(IdentificationTest, AnsweredFromTextsAndTheStoreWhileTheMapIsNotAvailable) {
    TestDaemon daemon(mapWith(kIdentification), kStarting);
    ASSERT_FALSE(daemon.core().availability().isAvailable());
    EXPECT_EQ(daemon.ask(testing::request(3, 0, 1)).exception, 0x0A);
    Answer const answer = daemon.ask(identify(0x02, 0x00));
    ASSERT_EQ(answer.exception, 0);
    EXPECT_EQ(answer.body.at(2), 0x82);
    EXPECT_EQ(objectsOf(answer.body), (std::map<int, std::string>{{0, "Gateway maker"},
                                                                  {1, "GW-1"},
                                                                  {2, "1.0"},
                                                                  {4, "Maker"},
                                                                  {5, "RT 3000"},
                                                                  {6, "ups-map"}}));
}

TEST(IdentificationTest, ASourceReadsTheStoreAtEachRequest) {
    TestDaemon daemon(mapWith(kIdentification), kStarting);
    auto& store = cdshost::Store::instance();
    store.setDeviceAttribute(2, cdsapi::AttributeManufacturer, "Other maker");
    EXPECT_EQ(objectsOf(daemon.ask(identify(0x04, 0x04)).body)[4], "Other maker");
}

TEST(IdentificationTest, ASourceThatCannotBeReadAnswersItsTextOrNothing) {
    TestDaemon daemon(mapWith(kIdentification), kStarting);
    cdshost::Store::instance().removeDevice(2);
    auto const objects = objectsOf(daemon.ask(identify(0x02, 0x00)).body);
    EXPECT_EQ(objects.at(4), "unknown");
    EXPECT_EQ(objects.at(5), "");
    EXPECT_EQ(objects.at(6), "");
}

TEST(IdentificationTest, WithoutASectionReadDeviceIdentificationIsIllegalFunction) {
    TestDaemon daemon(std::string(R"({"entries": [)") + kEntry + "]}", kStarting);
    EXPECT_EQ(daemon.ask(identify(0x01, 0x00)).exception, 0x01);
}

TEST(IdentificationTest, TheAnswerFrameCarriesTheBodyAfterTheFunctionCode) {
    TestDaemon daemon(mapWith(kIdentification), kStarting);
    Bytes const request = identify(0x04, 0x02);
    Answer const answer = daemon.ask(request);
    EXPECT_EQ(encodeResponse(request.data(), request.size(), answer),
              (Bytes{0x00, 0x01, 0x00, 0x00, 0x00, 0x0D, 0x01, 0x2B, 0x0E, 0x04, 0x82, 0x00, 0x00,
                     0x01, 0x02, 0x03, '1', '.', '0'}));
}

TEST(IdentificationTest, ShippedMapIdentifiesTheGatewayWithRegularObjects) {
    RegisterMapDefinition const map = parseRegisterMap(embeddedMap());
    ASSERT_GE(map.identification.size(), 3u);
    EXPECT_EQ(map.identification[0].id, 0x00);
    EXPECT_EQ(map.identification[1].id, 0x01);
    EXPECT_EQ(map.identification[2].id, 0x02);
    EXPECT_GT(map.identification.back().id, 0x02);
}

}  // namespace
}  // namespace tarsel::daemon
