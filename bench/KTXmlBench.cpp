// Parsing and writing 1 MB of XML, beside tinyxml2. "ours_ns" and "rival_ns" are for one byte.
#include <KTBase/KTXml.h>
#include <tinyxml2.h>

#include <string>

#include "KTCompare.h"

namespace {

/// Device lists: elements with two attributes and a short text, three levels deep.
const std::string& Document() {
    static const std::string document = [] {
        std::string text = "<devices>\n";
        for (int i = 0; text.size() < 1000000; ++i) {
            const std::string number = std::to_string(i);
            text += "<device id=\"" + number + "\" type=\"camera\">\n<name>Gate " + number +
                    "</name>\n<address>10.0.0.1</address>\n</device>\n";
        }
        return text + "</devices>\n";
    }();
    return document;
}

void Parse(benchmark::State& state) {
    const std::string& text = Document();
    KTCompare(
        state, static_cast<double>(text.size()),
        [&text] { delete CKTXmlNode::ParseXml(text.data(), text.size()); },
        [&text] {
            tinyxml2::XMLDocument document;
            document.Parse(text.data(), text.size());
        });
}

void Write(benchmark::State& state) {
    const std::string& text = Document();
    CKTXmlNode* tree = CKTXmlNode::ParseXml(text.data(), text.size());
    tinyxml2::XMLDocument document;
    document.Parse(text.data(), text.size());
    KTCompare(
        state, static_cast<double>(text.size()),
        [tree] {
            CKTString out;
            tree->ToString(out);
        },
        [&document] {
            tinyxml2::XMLPrinter printer;
            document.Print(&printer);
        });
    delete tree;
}

}  // namespace

BENCHMARK(Parse)->UseManualTime();
BENCHMARK(Write)->UseManualTime();
BENCHMARK_MAIN();
