// WaitProbe.cpp - waits for children in a process without an application object, where no event loop
// can run: KvProcess without a time limit and with one, sp_SpawnApplication with output captured, and
// the older launcher.
// Its arguments are three copies of the child program: one that ends with exit code 3, one that sleeps a
// minute, and one that writes "hello" and ends with exit code 4. One line per wait on standard output.
#include "Processes.h"
#include "kvstream.h"

#include <QElapsedTimer>

#include <cstdio>
#include <string>

#ifdef _WIN32
#include <fcntl.h>
#include <io.h>
#endif

int main(int argc, char** argv)
{
#ifdef _WIN32
    // Lines end in a line feed alone, as on every other system.
    _setmode(_fileno(stdout), _O_BINARY);
#endif
    if (argc < 4) {
        std::fprintf(stderr, "usage: WaitProbe ENDS_WITH_3 SLEEPS WRITES_HELLO\n");
        return 2;
    }
    const auto quoted = [](const char* path) { return "\"" + std::string(path) + "\""; };
    {
        KvProcess child(quoted(argv[1]).c_str(), false, false);
        const bool started = child.start();
        const bool ended = started && child.waitProcess(0);
        std::printf("unlimited %d %d\n", ended, child.exitCode());
    }
    {
        KvProcess child(quoted(argv[2]).c_str(), false, false);
        const bool started = child.start();
        QElapsedTimer waited;
        waited.start();
        const bool ended = started && child.waitProcess(300);
        const bool prompt = waited.elapsed() < 10000;
        child.kill();
        const bool killed = child.waitProcess(0);
        std::printf("limited %d %s %d\n", ended, prompt ? "promptly" : "late", killed);
    }
    {
        YRef<kvstream> output(new kvstrstream(""));
        unsigned code = 99;
        int pid = 0;
        const SSPError result = sp_SpawnApplication(quoted(argv[3]).c_str(), SpawnFlags(SpawnWait | SpawnCaptureOutput),
                                                    output, &code, &pid);
        std::printf("spawn %d %u %s", static_cast<int>(result), code, static_cast<kvstrstream*>(output.get())->str().c_str());
    }
    {
        unsigned code = 99;
        int pid = 0;
        const SSPError result = sp_OldSpawnApplication(quoted(argv[1]).c_str(), SpawnWait, &code, &pid);
        std::printf("old %d %u %d\n", static_cast<int>(result), code, pid);
    }
    std::fflush(stdout);
    return 0;
}
