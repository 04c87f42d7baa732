// YDomTest.cpp - the DOM: write, save, load and read back.
#include "TestHelpers.h"
#include "YDom.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <random>

class YDom : public TempDirTest {};

TEST_F(YDom, WritesSavesLoadsAndReadsBack)
{
    YRef<YDomDocument> doc = YXML_Factory::Make_RapidXML_DOM_Document();
    YRef<YDomElement> root = doc->createRoot("msw");
    root->setAttribute("version", "1.0");
    YRef<YDomElement> header = root->appendChild("header");
    header->setAttribute("title", "R<1> & \"C\" 'x' \xC3\xA9");
    header->setAttribute("numcores", 4);
    header->setAttribute("seed", 12345678901234LL);
    header->setAttribute("nom", 0.1);
    header->setAttribute("tiny", 4.9406564584124654e-324);
    header->setAttribute("big", 1.7976931348623157e308);
    header->setAttribute("third", 1.0 / 3.0);
    root->appendChild("steps")->appendChild("step");
    ASSERT_TRUE(doc->save(path("a.xml").c_str(), 0));

    YRef<YDomDocument> back = YXML_Factory::Make_RapidXML_DOM_Document();
    ASSERT_TRUE(back->load(path("a.xml").c_str()));
    YRef<YDomElement> r = back->getRoot();
    ASSERT_TRUE(r);
    EXPECT_EQ(r->tagName(), "msw");
    EXPECT_EQ(r->getAttribute("version"), "1.0");
    YArray<YRef<YDomElement>> children = r->childElements();
    ASSERT_EQ(children.count(), 2);
    EXPECT_EQ(children[0]->tagName(), "header");
    EXPECT_EQ(children[1]->tagName(), "steps");
    YRef<YDomElement> h = children[0];
    EXPECT_EQ(h->getAttribute("title"), "R<1> & \"C\" 'x' \xC3\xA9");
    EXPECT_EQ(h->getAttributeInt("numcores"), 4);
    EXPECT_EQ(h->getAttributeInt64("seed"), 12345678901234LL);
    EXPECT_EQ(h->getAttribute("nom"), "0.1");
    EXPECT_EQ(h->getAttributeDouble("nom"), 0.1);
    EXPECT_EQ(h->getAttributeDouble("tiny"), 4.9406564584124654e-324);
    EXPECT_EQ(h->getAttributeDouble("big"), 1.7976931348623157e308);
    EXPECT_EQ(h->getAttributeDouble("third"), 1.0 / 3.0);
    EXPECT_FALSE(h->hasAttribute("missing"));
    EXPECT_EQ(h->getAttribute("missing"), "");
    EXPECT_EQ(h->getAttributeDouble("missing", -1.0), -1.0);
    EXPECT_EQ(h->getAttributeInt("title", 9), 9);
    EXPECT_EQ(children[1]->firstChildElement()->tagName(), "step");
    EXPECT_FALSE(children[1]->firstChildElement()->nextSiblingElement());
}

// Control characters other than tab, line feed and carriage return cannot stand in XML, not even as
// character references: the text written leaves them out, and the document itself keeps them.
TEST_F(YDom, ControlCharactersThatXmlCannotHoldAreLeftOutOfWhatIsWritten)
{
    YRef<YDomDocument> doc = YXML_Factory::Make_RapidXML_DOM_Document();
    YRef<YDomElement> root = doc->createRoot("r");
    root->setAttribute("a", "x\x01y\tz\n\x1f");
    root->appendChild("t")->setText("one\x02 two\r\n\x7f");
    // Nested, so that the walk goes down and back up; so deep that the text is written without indentation.
    YRef<YDomElement> deep = root;
    for (int i = 0; i < 2000; ++i)
        deep = deep->appendChild("d");
    deep->setAttribute("b", "\x03" "deep");
    root->appendChild("after")->setAttribute("c", "\x04" "z");
    const std::string text = doc->toText().c_str();
    EXPECT_NE(text.find("<r a=\"xy&#09;z&#10;\">"), std::string::npos) << text.substr(0, 200);
    EXPECT_NE(text.find("<t>one two\r\n\x7f</t>"), std::string::npos) << text.substr(0, 200);
    EXPECT_NE(text.find("<d b=\"deep\"/>"), std::string::npos);
    EXPECT_NE(text.find("</d><after c=\"z\"/></r>"), std::string::npos) << text.substr(text.size() - 100);
    EXPECT_EQ(text.find_first_of(std::string("\x01\x02\x03\x04\x1f", 5)), std::string::npos);
    EXPECT_EQ(text.find("&#0"), text.find("&#09;"));
    EXPECT_EQ(root->getAttribute("a"), "x\x01y\tz\n\x1f");
    ASSERT_TRUE(doc->save(path("c.xml").c_str(), 0));
    EXPECT_EQ(readFileBytes(path("c.xml")), text);
    YRef<YDomDocument> back = YXML_Factory::Make_RapidXML_DOM_Document();
    ASSERT_TRUE(back->load(path("c.xml").c_str()));
    EXPECT_EQ(back->getRoot()->getAttribute("a"), "xy\tz\n");
    EXPECT_EQ(back->getRoot()->firstChildElement()->text(), "one two\n\x7f"); // the reader ends lines with LF
}

TEST_F(YDom, DoublesAreBitIdenticalAfterARoundTrip)
{
    std::mt19937_64 random(42);
    YRef<YDomDocument> doc = YXML_Factory::Make_RapidXML_DOM_Document();
    YRef<YDomElement> root = doc->createRoot("values");
    std::vector<double> values = {0.0, -0.0, 1e-300, -2.5e-7, 123456.789, std::numeric_limits<double>::denorm_min()};
    for (int i = 0; i < 2000; ++i) {
        uint64_t bits = random();
        double d;
        std::memcpy(&d, &bits, sizeof d);
        if (std::isfinite(d))
            values.push_back(d);
    }
    for (double v : values)
        root->appendChild("v")->setAttribute("x", v);
    ASSERT_TRUE(doc->save(path("d.xml").c_str()));
    YRef<YDomDocument> back = YXML_Factory::Make_RapidXML_DOM_Document();
    ASSERT_TRUE(back->load(path("d.xml").c_str()));
    YArray<YRef<YDomElement>> items = back->getRoot()->childElements();
    ASSERT_EQ(items.count(), static_cast<int>(values.size()));
    for (int i = 0; i < items.count(); ++i) {
        double got = items[i]->getAttributeDouble("x", 99.0);
        EXPECT_EQ(std::memcmp(&got, &values[static_cast<size_t>(i)], sizeof got), 0) << i;
    }
}

TEST_F(YDom, RejectsTruncatedEmptyAndNonXmlFiles)
{
    YRef<YDomDocument> doc = YXML_Factory::Make_RapidXML_DOM_Document();
    writeFileBytes(path("truncated.xml"), "<msw version=\"1.0\"><header title=\"x\"/><steps>");
    EXPECT_FALSE(doc->load(path("truncated.xml").c_str()));
    writeFileBytes(path("empty.xml"), "");
    EXPECT_FALSE(doc->load(path("empty.xml").c_str()));
    writeFileBytes(path("text.xml"), "this is not XML at all\n");
    EXPECT_FALSE(doc->load(path("text.xml").c_str()));
    EXPECT_FALSE(doc->load(path("missing.xml").c_str()));
    EXPECT_FALSE(doc->load(nullptr));
    EXPECT_FALSE(doc->getRoot());
}

// A document is one element with nothing but markup and blanks around it: a second element, or text or
// a CDATA section outside the element, is not well-formed XML.
TEST_F(YDom, RejectsASecondRootAndTextAroundTheRoot)
{
    YRef<YDomDocument> doc = YXML_Factory::Make_RapidXML_DOM_Document();
    for (const char* text : {"<msw/><msw/>", "<msw version=\"1.0\"/>\n<msw version=\"9\"/>\n", "<msw/>junk", "junk<msw/>",
                             "<msw/>x", "<msw/>\n x", "x\n<msw/>", "<msw/><![CDATA[x]]>", "<msw/>&amp;", " \n", "<!-- c -->"}) {
        EXPECT_FALSE(doc->loadText(text, std::strlen(text))) << text;
        EXPECT_FALSE(doc->getRoot()) << text;
    }
    // Markup and blanks around the element are allowed.
    for (const char* text : {"<msw/>", "<msw/>\n", "<msw/> \t\r\n", "<?xml version=\"1.0\"?>\n<msw/>\n",
                             "<!DOCTYPE msw>\n<!-- before --><msw>t</msw><!-- after -->", "<?pi x?><msw/><?pi y?>",
                             "\xEF\xBB\xBF<msw a=\"1\"><b/>text</msw>"}) {
        EXPECT_TRUE(doc->loadText(text, std::strlen(text))) << text;
        ASSERT_TRUE(doc->getRoot()) << text;
        EXPECT_EQ(std::string(doc->getRoot()->tagName().c_str()), "msw") << text;
    }
    // The same in UTF-16 and in Latin-1: a second root, or a character after the root, is refused there
    // too.
    const std::string one("\xFF\xFE<\0m\0s\0w\0/\0>\0", 14);
    EXPECT_TRUE(doc->loadText(one.data(), one.size()));
    const std::string two = one + std::string("<\0m\0s\0w\0/\0>\0", 12);
    EXPECT_FALSE(doc->loadText(two.data(), two.size()));
    const std::string trailing = one + std::string("\n\0x\0", 4);
    EXPECT_FALSE(doc->loadText(trailing.data(), trailing.size()));
    const std::string blank = one + std::string("\n\0", 2);
    EXPECT_TRUE(doc->loadText(blank.data(), blank.size()));
    const std::string latin = "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><msw>\xE9</msw>";
    EXPECT_TRUE(doc->loadText(latin.data(), latin.size()));
    EXPECT_FALSE(doc->loadText((latin + "\nx").data(), latin.size() + 2));
}

// A stray ">" after the element is text outside it, even as the text's last character, which the
// parser takes for its own end mark; so is a NUL character, after which the parser would read nothing.
TEST_F(YDom, RejectsAStrayLastCharacterAndANul)
{
    YRef<YDomDocument> doc = YXML_Factory::Make_RapidXML_DOM_Document();
    for (const std::string& text : {std::string("<msw/>>"), std::string("<msw/> >"), std::string("<msw/>\n>"),
                                    std::string("<msw version=\"1.0\"/>\n>"), std::string("<msw/>\0junk", 11),
                                    std::string("<msw/>\0", 7), std::string("<msw>\0</msw>", 13)}) {
        EXPECT_FALSE(doc->loadText(text.data(), text.size())) << text;
        EXPECT_FALSE(doc->getRoot()) << text;
    }
    // The same element with a last character that ends markup, or a blank, reads.
    for (const char* text : {"<msw/>", "<msw></msw>", "<msw/>\n", "<msw/><!-- c -->", "<msw/><?pi?>"}) {
        EXPECT_TRUE(doc->loadText(text, std::strlen(text))) << text;
        ASSERT_TRUE(doc->getRoot()) << text;
    }
    // In UTF-16 and UTF-32, with and without a byte-order mark, in both byte orders.
    const auto wide = [](const std::string& ascii, int width, bool bigEndian, bool mark) {
        std::string out;
        const auto put = [&](unsigned c) {
            for (int i = 0; i < width; ++i)
                out += static_cast<char>(c >> (8 * (bigEndian ? width - 1 - i : i)));
        };
        if (mark)
            put(0xFEFF);
        for (const char c : ascii)
            put(static_cast<unsigned char>(c));
        return out;
    };
    for (const int width : {2, 4})
        for (const bool bigEndian : {false, true})
            for (const bool mark : {false, true}) {
                const std::string good = wide("<msw a=\"1\">t</msw>\n", width, bigEndian, mark);
                EXPECT_TRUE(doc->loadText(good.data(), good.size())) << width << bigEndian << mark;
                ASSERT_TRUE(doc->getRoot());
                EXPECT_EQ(std::string(doc->getRoot()->getAttribute("a").c_str()), "1");
                for (const char* bad : {"<msw/>>", "<msw/>\n>", "<msw/>x"}) {
                    const std::string text = wide(bad, width, bigEndian, mark);
                    EXPECT_FALSE(doc->loadText(text.data(), text.size())) << bad << width << bigEndian << mark;
                }
                const std::string nul = wide(std::string("<msw/>\0x", 8), width, bigEndian, mark);
                EXPECT_FALSE(doc->loadText(nul.data(), nul.size())) << width << bigEndian << mark;
                // A text cut short inside a character, whatever its stray bytes.
                for (int stray = 1; stray < width; ++stray)
                    for (const char byte : {' ', '\r', '\n', '\0', '>', 'x'}) {
                        const std::string cut = wide("<msw/>", width, bigEndian, mark) + std::string(static_cast<size_t>(stray), byte);
                        EXPECT_FALSE(doc->loadText(cut.data(), cut.size())) << width << bigEndian << mark << stray << int(byte);
                    }
            }
    // Latin-1, declared.
    const std::string latin = "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><msw>\xE9</msw>";
    EXPECT_TRUE(doc->loadText(latin.data(), latin.size()));
    EXPECT_FALSE(doc->loadText((latin + ">").data(), latin.size() + 1));
}

TEST_F(YDom, DoesNotExpandDeclaredEntities)
{
    std::string laughs = "<?xml version=\"1.0\"?><!DOCTYPE lolz [<!ENTITY lol \"lol\">";
    laughs += "<!ENTITY lol1 \"&lol;&lol;&lol;&lol;&lol;&lol;&lol;&lol;&lol;&lol;\">";
    laughs += "<!ENTITY lol2 \"&lol1;&lol1;&lol1;&lol1;&lol1;&lol1;&lol1;&lol1;&lol1;&lol1;\">]>";
    laughs += "<msw a=\"&lol2;\">&lol2;</msw>";
    writeFileBytes(path("lol.xml"), laughs);
    YRef<YDomDocument> doc = YXML_Factory::Make_RapidXML_DOM_Document();
    ASSERT_TRUE(doc->load(path("lol.xml").c_str()));
    EXPECT_LT(doc->getRoot()->getAttribute("a").length(), 16);
}

TEST_F(YDom, SaveToAMissingDirectoryFails)
{
    YRef<YDomDocument> doc = YXML_Factory::Make_RapidXML_DOM_Document();
    doc->createRoot("x");
    EXPECT_FALSE(doc->save(path("no/such/dir/x.xml").c_str()));
    EXPECT_TRUE(doc->save(path("x.xml").c_str()));
    EXPECT_EQ(readFileBytes(path("x.xml")), "<?xml version=\"1.0\"?>\n<x />\n");
}

TEST_F(YDom, ElementsKeepTheirDocumentAlive)
{
    YRef<YDomElement> child;
    {
        YRef<YDomDocument> doc = YXML_Factory::Make_RapidXML_DOM_Document();
        child = doc->createRoot("root")->appendChild("child");
        child->setText("kept");
    }
    EXPECT_EQ(child->tagName(), "child");
    EXPECT_EQ(child->text(), "kept");
}

// A document that is loaded again or given a new root leaves the elements still held with the tree they
// came from, and goes on with a new one.
TEST_F(YDom, ElementsKeepTheirTreeWhenTheDocumentStartsAnother)
{
    YRef<YDomDocument> doc = YXML_Factory::Make_RapidXML_DOM_Document();
    YRef<YDomElement> first = doc->createRoot("first");
    first->setAttribute("n", "1");
    YRef<YDomElement> second = doc->createRoot("second");
    ASSERT_TRUE(second);
    EXPECT_EQ(first->tagName(), "first");
    EXPECT_EQ(first->getAttribute("n"), "1");
    EXPECT_EQ(second->tagName(), "second");
    EXPECT_EQ(doc->toText(), "<?xml version=\"1.0\"?>\n<second />\n");

    const char loaded[] = "<results case=\"7\"><run id=\"3\"/></results>";
    ASSERT_TRUE(doc->loadText(loaded, sizeof loaded - 1));
    YRef<YDomElement> results = doc->getRoot();
    ASSERT_TRUE(results);
    const char other[] = "<other case=\"8\"/>";
    ASSERT_TRUE(doc->loadText(other, sizeof other - 1));
    EXPECT_EQ(results->tagName(), "results");
    EXPECT_EQ(results->getAttribute("case"), "7");
    EXPECT_EQ(second->tagName(), "second");
    EXPECT_EQ(doc->getRoot()->getAttribute("case"), "8");
}

// A deep document is written without indentation, which would grow with the square of its depth; a
// shallow one keeps its tabs.
TEST_F(YDom, DeepDocumentsAreWrittenWithoutIndentation)
{
    const int levels = 20000;
    std::string text;
    for (int i = 0; i < levels; ++i)
        text += "<a>";
    for (int i = 0; i < levels; ++i)
        text += "</a>";
    YRef<YDomDocument> doc = YXML_Factory::Make_RapidXML_DOM_Document();
    ASSERT_TRUE(doc->loadText(text.data(), text.size()));
    const YString written = doc->toText();
    EXPECT_EQ(std::string(written.c_str()), "<?xml version=\"1.0\"?>" + text.substr(0, 3 * (levels - 1)) + "<a/>" +
                                                 text.substr(3 * levels + 4));
    ASSERT_TRUE(doc->save(path("deep.xml").c_str()));
    EXPECT_EQ(readFileBytes(path("deep.xml")), written.c_str());
    YRef<YDomDocument> again = YXML_Factory::Make_RapidXML_DOM_Document();
    EXPECT_TRUE(again->load(path("deep.xml").c_str()));

    const char shallow[] = "<a><b><c/></b></a>";
    ASSERT_TRUE(doc->loadText(shallow, sizeof shallow - 1));
    EXPECT_EQ(doc->toText(), "<?xml version=\"1.0\"?>\n<a>\n\t<b>\n\t\t<c />\n\t</b>\n</a>\n");
}

// What is written is well-formed: names that are no XML names are refused, and each byte that is no part
// of a character XML holds is written as U+FFFD; the document reads back.
TEST_F(YDom, WhatIsWrittenReadsBackWhateverTheNamesAndBytes)
{
    YRef<YDomDocument> doc = YXML_Factory::Make_RapidXML_DOM_Document();
    EXPECT_FALSE(doc->createRoot("a b"));
    YRef<YDomElement> root = doc->createRoot("r");
    ASSERT_TRUE(root);
    for (const char* bad : {"", "a b", "1a", "-a", "a<b", "a\"", "x\xFF", "\xC3"})
        EXPECT_FALSE(root->appendChild(bad)) << bad;
    EXPECT_TRUE(root->appendChild("_ok-name.x:1"));
    EXPECT_TRUE(root->appendChild("\xC3\xA9t\xC3\xA9"));
    root->setAttribute("x y", "1");
    root->setAttribute("", "2");
    EXPECT_FALSE(root->hasAttribute("x y"));
    root->setAttribute("latin", "caf\xE9 \xFF\xFE");
    root->setAttribute("surrogate", "\xED\xA0\x80!");
    root->setAttribute("nonchar", "a\xEF\xBF\xBE" "b\xEF\xBF\xBF" "c");
    root->setAttribute("cut", "z\xE2\x82");
    root->setAttribute("good", "\xE2\x82\xAC \xF0\x9F\x98\x80");
    const YString text = doc->toText();
    EXPECT_EQ(std::string(text.c_str()),
              "<?xml version=\"1.0\"?>\n"
              "<r latin=\"caf\xEF\xBF\xBD \xEF\xBF\xBD\xEF\xBF\xBD\" surrogate=\"\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD!\" "
              "nonchar=\"a\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD" "b\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD" "c\" cut=\"z\xEF\xBF\xBD\xEF\xBF\xBD\" good=\"\xE2\x82\xAC \xF0\x9F\x98\x80\">\n"
              "\t<_ok-name.x:1 />\n"
              "\t<\xC3\xA9t\xC3\xA9 />\n"
              "</r>\n");
    // The document itself keeps what it was given.
    EXPECT_EQ(root->getAttribute("latin"), "caf\xE9 \xFF\xFE");
    YRef<YDomDocument> back = YXML_Factory::Make_RapidXML_DOM_Document();
    ASSERT_TRUE(back->loadText(text.c_str(), static_cast<size_t>(text.length())));
    EXPECT_EQ(back->getRoot()->getAttribute("good"), "\xE2\x82\xAC \xF0\x9F\x98\x80");
}
