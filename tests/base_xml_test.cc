#include <cstddef>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <string_view>

#include "base/xml.h"

namespace {

using namespace std::string_view_literals;

constexpr std::string_view settings =
    "\xEF\xBB\xBF<?xml version='1.0'?>\n"
    "<!DOCTYPE table [ <!ELEMENT table ANY> <!-- it's > ] --> <!ENTITY x \"]>\"> ]>\n"
    "<!-- a comment with <markup> in it -->\n"
    "<table version=\"1\" name = 'a>b'>\r\n"
    "  <merge_num> 8 </merge_num >\n"
    "  <skipped/><also unit=\"MiB\" />\n"
    "  <note>1 &lt; 2 &amp;&amp; &quot;x&quot; &apos;y&apos; &#65;&#x42;&#xe9;&#x20AC;&#x1F600;"
    "</note>\n"
    "  <split>12<!-- cut -->34<?pi?>5</split>\n"
    "  <group>\n<mixed>a<bold>c</bold></mixed></group>"
    "</table>\n<!-- after -->";

TEST(Xml, ReadsAndWritesWhatASettingsFileMayHold) {
  zem_xml xml;
  ASSERT_TRUE(zem_xml_set(xml, settings));
  EXPECT_EQ(zem_xml_text(*zem_xml_find_name(zem_xml_root(xml), "merge_num")), " 8 ");
  EXPECT_EQ(zem_xml_get(xml),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<table>\n"
            "  <merge_num> 8 </merge_num>\n"
            "  <skipped/>\n"
            "  <also/>\n"
            "  <note>1 &lt; 2 &amp;&amp; &quot;x&quot; &apos;y&apos; "
            "AB\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80</note>\n"
            "  <split>12345</split>\n"
            "  <group>\n"
            "    <mixed>a<bold>c</bold></mixed>\n"
            "  </group>\n"
            "</table>\n");
}

TEST(Xml, WhatIsNoDocumentLeavesAnEmptyOne) {
  std::string_view sources =  // each ended by a bar
      "|text|<table>|<table a>|<table a=>x</table>|<table a='1'b='2'/>|< table/>|<table/ >|"
      "<table></tables>|<a><b></a></b>|<a/><b/>|<a/>text|<a/><!DOCTYPE a>|<!DOCTYPE a [ > <a/>|"
      "<!-- <a/>|<a>&lt</a>|<a>&unknown;</a>|<a>&#;</a>|<a>&#12a;</a>|<a>&#0;</a>|<a>&#xD800;</a>|"
      "<a>&#x110000;</a>|<a>&#99999999999999999999;</a>|<a>\0</a>|<a>\x1b</a>|"
      "<a><![CDATA[x]]></a>|"sv;
  while (!sources.empty()) {
    const std::string_view source = sources.substr(0, sources.find('|'));
    sources.remove_prefix(source.size() + 1);
    zem_xml xml;
    EXPECT_FALSE(zem_xml_set(xml, source)) << source;
  }
}

TEST(Xml, SizeItemsAndCostAreBounded) {
  zem_xml xml;
  const std::string longest = "<a>" + std::string(zem_xml_size_max - 7, 'x') + "</a>";
  EXPECT_TRUE(zem_xml_set(xml, longest));
  EXPECT_FALSE(zem_xml_set(xml, longest + " "));
  std::string children;
  for (std::size_t i = 1; i < zem_xml_items_max; ++i)
    children += "<b/>";
  EXPECT_TRUE(zem_xml_set(xml, "<a>" + children + "</a>"));
  EXPECT_FALSE(zem_xml_set(xml, "<a>" + children + "<b/></a>"));
  EXPECT_FALSE(zem_xml_set(xml, "<a>" + children + "x</a>"));
  std::string deep;  // costs no stack and little text
  for (std::size_t i = 0; i < 2 * zem_xml_items_max; ++i)
    deep += i < zem_xml_items_max ? "<a>" : "</a>";
  ASSERT_TRUE(zem_xml_set(xml, deep));
  EXPECT_LT(zem_xml_get(xml).size(), 8 * deep.size());
}

// Whatever the damage, what still reads must come back the same from its own text.
TEST(Xml, DamagedDocumentsReadOrAreRefused) {
  constexpr std::string_view spare = "<>/!-&;#x'\"=[]? a1\n\x80";
  std::mt19937 random(7);
  int read = 0;
  for (int run = 0; run < 20'000; ++run) {
    std::string source(settings);
    for (int change = 0; change <= run % 3; ++change) {
      const std::size_t at = random() % source.size();
      const std::size_t what = random() % 3;
      if (what == 0) source[at] = spare[random() % spare.size()];
      if (what == 1) source.erase(at, 1 + random() % 8);
      if (what == 2) source.insert(at, source.substr(random() % source.size(), random() % 20));
    }
    zem_xml xml;
    if (!zem_xml_set(xml, source)) {
      ASSERT_TRUE(zem_xml_root(xml).name.empty() && xml.items.size() == 1) << source;
      continue;
    }
    ++read;
    const std::string text = zem_xml_get(xml);
    zem_xml again;
    ASSERT_TRUE(zem_xml_set(again, text)) << source;
    ASSERT_EQ(zem_xml_get(again), text) << source;
  }
  EXPECT_GT(read, 1000);
}

}  // namespace
