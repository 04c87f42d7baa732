// consumer.cpp - uses both libraries through the umbrella header only.
#include <SupportQtDll.h>

#include <cstdio>

int main()
{
    YString text("R1 a b 4.7k");
    YArray<YString> tokens;
    sp_ScanLine(text, " ", &tokens, 2147483647);
    double value = sp_ConvertEngToReal(toQs(tokens[3]));
    UTF8Detect detect;
    detect.loadString("caf\xC3\xA9");
    DataCompressor* compressor = sp_MakeDataCompressor();
    compressor->append("abc", 3);
    int size = compressor->size();
    delete compressor;
    std::printf("tokens=%d value=%s utf8=%d size=%d\n", tokens.count(), sp_RealToShortestText(value).c_str(),
                static_cast<int>(detect.getEncoding()), size);
    return (tokens.count() == 4 && value == 4700.0 && detect.getEncoding() == Utf8 && size == 3) ? 0 : 1;
}
