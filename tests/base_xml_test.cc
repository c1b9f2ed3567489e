#include <cstddef>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <string_view>
#include <utility>

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
    "  <merge_num>9</merge_num>\n"
    "</table>\n<!-- after -->";

bool is_empty(const zem_xml &xml) {
  const zem_xml_item &root = zem_xml_root(xml);
  return root.name.empty() && root.first_child == nullptr && xml.items.size() == 1;
}

std::string_view text_of(const zem_xml &xml, std::string_view name) {
  const zem_xml_item *const element = zem_xml_find_name(zem_xml_root(xml), name);
  return element == nullptr ? "missing"sv : zem_xml_text(*element);
}

TEST(Xml, ReadsWhatASettingsFileMayHold) {
  zem_xml xml;
  ASSERT_TRUE(zem_xml_set(xml, settings));

  EXPECT_EQ(zem_xml_root(xml).name, "table");
  EXPECT_EQ(text_of(xml, "merge_num"), " 8 ");
  EXPECT_EQ(text_of(xml, "skipped"), "");
  EXPECT_EQ(text_of(xml, "also"), "");
  EXPECT_EQ(text_of(xml, "note"), "1 < 2 && \"x\" 'y' AB\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80");
  EXPECT_EQ(text_of(xml, "split"), "12345");
  EXPECT_EQ(text_of(xml, "table"), "missing");
}

TEST(Xml, WritesOneElementALine) {
  zem_xml xml;
  zem_xml_item &root = zem_xml_root(xml);
  root.name = "table";
  zem_xml_append_text(xml, zem_xml_append_element(xml, root, "size"), "16");
  zem_xml_append_element(xml, root, "none");
  zem_xml_item &group = zem_xml_append_element(xml, root, "group");
  zem_xml_item &mixed = zem_xml_append_element(xml, group, "mixed");
  zem_xml_append_text(xml, mixed, "a<b&");
  zem_xml_append_text(xml, mixed, "c>");
  zem_xml_append_text(xml, zem_xml_append_element(xml, mixed, "bold"), "\"d'");

  const std::string text = zem_xml_get(xml);

  EXPECT_EQ(text,
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<table>\n"
            "  <size>16</size>\n"
            "  <none/>\n"
            "  <group>\n"
            "    <mixed>a&lt;b&amp;c&gt;<bold>&quot;d&apos;</bold></mixed>\n"
            "  </group>\n"
            "</table>\n");
  zem_xml read;
  ASSERT_TRUE(zem_xml_set(read, text));
  EXPECT_EQ(read.items.size(), xml.items.size());
  EXPECT_EQ(zem_xml_get(read), text);
}

TEST(Xml, WhatIsNoDocumentLeavesAnEmptyOne) {
  for (const std::string_view source : {
           ""sv,
           "  \n"sv,
           "text"sv,
           "<?xml version='1.0'?>"sv,
           "<table>"sv,
           "<table"sv,
           "<table a>"sv,
           "<table a=>x</table>"sv,
           "<table a='1'b='2'/>"sv,
           "<table a='1/>"sv,
           "< table/>"sv,
           "<1/>"sv,
           "<table/ >"sv,
           "</table>"sv,
           "<table></tables>"sv,
           "<a><b></a></b>"sv,
           "<a/><b/>"sv,
           "<a/>text"sv,
           "text<a/>"sv,
           "<a/><!DOCTYPE a>"sv,
           "<!DOCTYPE a [ > <a/>"sv,
           "<!-- <a/>"sv,
           "<?pi <a/>"sv,
           "<a>&lt</a>"sv,
           "<a>&unknown;</a>"sv,
           "<a>&;</a>"sv,
           "<a>&#;</a>"sv,
           "<a>&#x;</a>"sv,
           "<a>&#12a;</a>"sv,
           "<a>&#xg;</a>"sv,
           "<a>&#0;</a>"sv,
           "<a>&#xD800;</a>"sv,
           "<a>&#x110000;</a>"sv,
           "<a>&#99999999999999999999;</a>"sv,
           "<a>\0</a>"sv,
           "<a>\x1b</a>"sv,
           "<a><![CDATA[x]]></a>"sv,
       }) {
    SCOPED_TRACE(source);
    zem_xml xml;
    ASSERT_TRUE(zem_xml_set(xml, "<before>x</before>"));
    EXPECT_FALSE(zem_xml_set(xml, source));
    EXPECT_TRUE(is_empty(xml));
  }
}

TEST(Xml, InputIsBounded) {
  zem_xml xml;
  const std::string_view ends = "<a></a>";
  std::string longest = "<a>" + std::string(zem_xml_size_max - ends.size(), 'x') + "</a>";
  EXPECT_TRUE(zem_xml_set(xml, longest));
  EXPECT_FALSE(zem_xml_set(xml, longest + " "));

  std::string children;
  for (std::size_t i = 1; i < zem_xml_items_max; ++i)
    children += "<b/>";
  EXPECT_TRUE(zem_xml_set(xml, "<a>" + children + "</a>"));
  EXPECT_EQ(xml.items.size(), zem_xml_items_max);
  EXPECT_FALSE(zem_xml_set(xml, "<a>" + children + "<b/></a>"));
  EXPECT_FALSE(zem_xml_set(xml, "<a>" + children + "x</a>"));
}

TEST(Xml, DepthCostsNoStackAndLittleText) {
  std::string source;
  for (std::size_t i = 0; i < zem_xml_items_max; ++i)
    source += "<a>";
  for (std::size_t i = 0; i < zem_xml_items_max; ++i)
    source += "</a>";

  zem_xml xml;
  ASSERT_TRUE(zem_xml_set(xml, source));
  EXPECT_LT(zem_xml_get(xml).size(), 8 * source.size());
}

// `source` with a byte overwritten, some bytes removed or some repeated elsewhere.
std::string damaged(std::string source, std::mt19937 &random) {
  constexpr std::string_view spare = "<>/!-&;#x'\"=[]? a1\n\x80";
  const std::size_t at = random() % source.size();
  switch (random() % 3) {
    case 0:
      source[at] = spare[random() % spare.size()];
      break;
    case 1:
      source.erase(at, 1 + random() % 8);
      break;
    default:
      source.insert(at, source.substr(random() % source.size(), random() % 20));
  }
  return source;
}

// Whatever the damage, what still reads must come back the same from its own text.
TEST(Xml, DamagedDocumentsReadOrAreRefused) {
  std::mt19937 random(7);
  int read = 0;
  for (int run = 0; run < 20'000; ++run) {
    std::string source(settings);
    for (int change = 0; change <= run % 3; ++change)
      source = damaged(std::move(source), random);
    zem_xml xml;
    if (!zem_xml_set(xml, source)) {
      ASSERT_TRUE(is_empty(xml)) << source;
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
