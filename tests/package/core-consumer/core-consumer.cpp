// core-consumer.cpp - uses the core library alone through its own umbrella header, without Qt.
#include <SupportDll.h>

#include <cstdio>

int main()
{
    YArray<YString> tokens;
    int count = sp_ScanLine("R1 a b 4.7k", " ", &tokens, 2147483647);
    double value = sp_ConvertEngToReal(tokens[3].c_str(), nullptr);
    double parsed = 0;
    bool ok = sp_TextToReal("2.5", &parsed);
    std::printf("tokens=%d value=%s parsed=%s\n", count, sp_RealToShortestText(value).c_str(),
                sp_RealToShortestText(parsed).c_str());
    return (count == 4 && tokens.count() == 4 && value == 4700.0 && ok && parsed == 2.5) ? 0 : 1;
}
