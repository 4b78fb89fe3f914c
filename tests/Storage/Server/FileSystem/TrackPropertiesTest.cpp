// Track properties: what the store refuses, and that a refused list stores
// nothing of it.

#include <gtest/gtest.h>

#include <string>

#include "Storage/Server/FileSystem/TrackPropertiesCache.h"
#include "Storage/Server/FileSystem/TrackPropertyLimits.h"
#include "tests/Support/ProtocolBuilders.h"
#include "tests/Support/TempDir.h"

using loopstore::test::PropertyListOf;
using loopstore::test::TempDir;

namespace {

std::string Refusal(TrackPropertiesCache& cache, const Protocol::PropertyList& list) {
    try {
        cache.Set(4, list);
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "<accepted>";
}

int Count(TrackPropertiesCache& cache) {
    Protocol::PropertyList out;
    cache.Get(4, out);
    return out.properties_size();
}

TEST(TrackProperties, LimitsAreCheckedBeforeAnythingIsStored) {
    TempDir dir;
    TrackPropertiesCache cache;
    cache.Open(dir.Path());
    const std::string maxKey(TrackPropertyLimits::kMaxKeyBytes, 'k');
    const std::string maxValue(TrackPropertyLimits::kMaxValueBytes, 'v');
    cache.Set(4, PropertyListOf({{"caméra", "日本"}, {maxKey, maxValue}}));
    EXPECT_EQ(Count(cache), 2);

    // The first good pair of each list is not stored either.
    EXPECT_EQ(Refusal(cache, PropertyListOf({{"a", "1"}, {maxKey + "k", "v"}})),
              "T4: a property key takes 1025 bytes, more than 1024");
    EXPECT_EQ(Refusal(cache, PropertyListOf({{"a", "1"}, {"b", maxValue + "v"}})),
              "T4: the value of property <b> takes 65537 bytes, more than 65536");
    EXPECT_EQ(Refusal(cache, PropertyListOf({{"a", "1"}, {"\xc3\x28", "v"}})),
              "T4: a property key is not valid UTF-8");
    EXPECT_EQ(Refusal(cache, PropertyListOf({{"a", "1"}, {"b", "\xed\xa0\x80"}})),
              "T4: the value of property <b> is not valid UTF-8");
    EXPECT_EQ(Count(cache), 2);

    // A track's properties fit one answer: 16 MiB in all.
    Protocol::PropertyList many;
    for (int i = 0; i < 255; ++i) {
        Protocol::Property* property = many.add_properties();
        property->set_key("p" + std::to_string(i));
        property->set_value(maxValue);
    }
    EXPECT_EQ(Refusal(cache, many).rfind("T4: the track's properties would take ", 0), 0u);
    EXPECT_EQ(Count(cache), 2);
    many.mutable_properties()->RemoveLast();
    many.mutable_properties()->RemoveLast();
    cache.Set(4, many);
    EXPECT_EQ(Count(cache), 255);
    // Replacing a value counts the new one only.
    cache.Set(4, PropertyListOf({{"p0", "small"}}));
    cache.Set(4, PropertyListOf({{"p1", maxValue}}));
}

}  // namespace
