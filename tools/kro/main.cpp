// kro: the command-line face of KROCore.
#include <CLI/CLI.hpp>

#include <iostream>

#include "AnalyzeCommand.h"
#include "ConvertCommand.h"
#include "DevicesCommand.h"
#include "FormatCommand.h"
#include "InfoCommand.h"
#include "KROCore.h"
#include "LoudnessCommand.h"
#include "MIDICommand.h"
#include "OverviewCommand.h"
#include "PlayCommand.h"
#include "RenderCommand.h"

namespace {

int printClasses(bool asJSON) {
    const auto names = KROClassRegistry::sharedRegistry().classNames();
    if (asJSON) {
        std::cout << "[";
        for (std::size_t i = 0; i < names.size(); ++i) {
            std::cout << (i ? "," : "") << "\"" << names[i] << "\"";
        }
        std::cout << "]\n";
        return 0;
    }
    std::cout << "KROCore " << KROCORE_VERSION_STRING << ": " << names.size()
              << " classes in the registry\n";
    for (const std::string& name : names) {
        const std::string superclass = KROClassRegistry::sharedRegistry().superclassName(name);
        std::cout << "  " << name;
        if (!superclass.empty()) {
            std::cout << " : " << superclass;
        }
        std::cout << "\n";
    }
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app{"kro: the KROCore audio engine on the command line", "kro"};
    app.set_version_flag("--version", std::string("kro (KROCore) ") + KROCORE_VERSION_STRING);
    app.require_subcommand(0, 1);

    bool classesAsJSON = false;
    CLI::App* classes = app.add_subcommand("classes", "List the classes in the class registry");
    classes->add_flag("--json", classesAsJSON, "Print JSON");
    classes->footer("Example:\n  kro classes --json");
    app.footer("Run `kro COMMAND --help` for what a command does, its options and an example.");
    DevicesCommand devices(app);
    FormatCommand format(app);
    InfoCommand info(app);
    ConvertCommand convert(app);
    LoudnessCommand loudness(app);
    AnalyzeCommand analyze(app);
    PlayCommand play(app);
    RenderCommand render(app);
    OverviewCommand overview(app);
    MIDICommand midi(app);

    CLI11_PARSE(app, argc, argv);

    if (classes->parsed()) {
        return printClasses(classesAsJSON);
    }
    if (devices.parsed()) {
        return devices.run();
    }
    if (play.parsed()) {
        return play.run();
    }
    if (overview.parsed()) {
        return overview.run();
    }
    if (render.parsed()) {
        return render.run();
    }
    if (format.parsed()) {
        return format.run();
    }
    if (info.parsed()) {
        return info.run();
    }
    if (convert.parsed()) {
        return convert.run();
    }
    if (loudness.parsed()) {
        return loudness.run();
    }
    if (analyze.parsed()) {
        return analyze.run();
    }
    if (midi.parsed()) {
        return midi.run();
    }
    std::cout << app.help();
    return 0;
}
