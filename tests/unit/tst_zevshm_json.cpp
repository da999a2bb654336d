#include "json.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

#include <limits>

using namespace zevshm;

namespace {

QJsonObject parsed(const JsonWriter &json)
{
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(QByteArray::fromStdString(json.text()), &error);
    EXPECT_EQ(error.error, QJsonParseError::NoError) << error.errorString().toStdString() << "\n"
                                                     << json.text();
    return document.object();
}

} // namespace

TEST(JsonWriter, writesWhatAParserReads)
{
    JsonWriter json;
    json.beginObject().member("name", "cam").member("width", 1280).member("rate", 29.97).member("live", true);
    json.key("nothing").null().key("empty").beginArray().endArray().key("none").beginObject().endObject();
    json.key("list")
        .beginArray()
        .value(1)
        .value("two")
        .beginObject()
        .member("three", 3)
        .endObject()
        .endArray();
    json.endObject();
    const QJsonObject object = parsed(json);
    EXPECT_EQ(object["name"].toString(), "cam");
    EXPECT_EQ(object["width"].toInt(), 1280);
    EXPECT_DOUBLE_EQ(object["rate"].toDouble(), 29.97);
    EXPECT_TRUE(object["live"].toBool());
    EXPECT_TRUE(object["nothing"].isNull());
    EXPECT_TRUE(object["empty"].isArray());
    EXPECT_TRUE(object["none"].isObject());
    EXPECT_EQ(object["list"].toArray().size(), 3);
    EXPECT_EQ(object["list"].toArray()[2].toObject()["three"].toInt(), 3);
}

TEST(JsonWriter, escapesText)
{
    JsonWriter json;
    json.beginObject().member("text", std::string("a\"b\\c\n\t\x01\x7f/ä€\xf0\x9f\x8e\xa5")).endObject();
    EXPECT_EQ(parsed(json)["text"].toString(), QString::fromUtf8("a\"b\\c\n\t\x01\x7f/ä€\xf0\x9f\x8e\xa5"));
}

TEST(JsonWriter, replacesWhatIsNotUtf8)
{
    for (const char *bad : {"\xff", "\xc0\x80", "\xed\xa0\x80", "\xe2\x82", "\xf4\x90\x80\x80", "\x80"}) {
        JsonWriter json;
        json.beginObject().member("text", std::string("<") + bad + ">").endObject();
        const QString text = parsed(json)["text"].toString();
        EXPECT_TRUE(text.startsWith('<') && text.endsWith('>')) << bad;
        EXPECT_TRUE(text.contains(QChar(0xfffd)));
    }
}

TEST(JsonWriter, keepsEveryDigitOfATimestamp)
{
    JsonWriter json;
    json.beginArray()
        .value(INT64_MIN)
        .value(static_cast<uint64_t>(UINT64_MAX))
        .value(int64_t{1767225600123456})
        .endArray();
    EXPECT_EQ(json.text(), "[\n  -9223372036854775808,\n  18446744073709551615,\n  1767225600123456\n]");
}

TEST(JsonWriter, hasNoWordForInfinity)
{
    JsonWriter json;
    json.beginObject().member("a", std::numeric_limits<double>::infinity());
    json.member("b", std::numeric_limits<double>::quiet_NaN()).endObject();
    EXPECT_TRUE(parsed(json)["a"].isNull());
    EXPECT_TRUE(parsed(json)["b"].isNull());
}
