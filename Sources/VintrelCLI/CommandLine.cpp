#include "VintrelCLI/CommandLine.h"

#include "VintrelCLI/Advice.h"
#include "VintrelCLI/Commands.h"
#include "VintrelCLI/Session.h"
#include "VintrelCLI/Signals.h"
#include "VintrelCLI/WriteSignals.h"
#include "VintrelCore/Devices/SourceError.h"
#include "VintrelCore/Foundation/Text.h"
#include "VintrelCore/Foundation/Unicode/Unicode.h"

#include <algorithm>
#include <cerrno>
#include <new>
#include <ostream>
#include <stdexcept>
#include <unistd.h>

namespace {

constexpr std::string_view usage = R"(vintrel-cli – datagendannelse fra kommandolinjen

  vintrel-cli list                          Vis tilsluttede diske
  vintrel-cli scan <kilde>                  Hurtig scanning (partitioner og filsystemer)
  vintrel-cli tree <kilde> [--deep]         Vis alle fundne filer
  vintrel-cli deep <kilde> [--no-carve]     Dyb scanning (tabte partitioner + signaturer)
  vintrel-cli recover <kilde> <mappe> [--deep] [--deleted]
                                            Gendan filer til <mappe>
  vintrel-cli image <kilde> <fil.img>       Lav et diskbillede (ddrescue-strategi)

<kilde> er en billedfil eller et disknavn som disk4.
)";

/// What --help adds to the usage.
constexpr std::string_view optionHelp = R"(
Til alle:
  --progress         Vis hele tiden, hvor langt kommandoen er nået
  --json             Skriv resultatet som JSON, et objekt på hver linje (ikke image)
Til tree og recover:
  --deep             Led også efter tabte volumener og efter filer ud fra deres indhold
  --streams          Tag også navngivne datastrømme med (NTFS)
Til tree, deep og recover:
  --fragments        Saml filer, der ligger i stykker, efter hvad indholdet viser
  --text             Led i den dybe scanning også efter tekst, HTML, XML og CSV (anslået størrelse)
Til deep:
  --no-carve         Led ikke efter filer ud fra deres indhold
Til recover:
  --deleted          Kun det, der ikke længere findes (slettet, forældreløst, fundet via signatur)
  --only MØNSTER     Kun stier, der passer: --only '*.jpg' --only 'DCIM/**' (kan gentages)
  --type LISTE       Kun disse typer: --type jpg,pdf eller --type billeder
  --chance LISTE     Kun med disse chancer: god, delvis, ringe, ukendt
  --volume N         Kun det N'te volumen, som scan og tree viser (kan gentages)
  --list-only        Skriv kun rapporten, og kopier intet
  --streams          Gendan også ressourcegrene, attributter og det, som macOS har pakket på HFS+
  --page             Lav også Gendannet.html, en side, hvor filerne kan ses i en browser
Til image:
  --page             Lav også en side ved siden af billedet, som viser, hvor skaderne er

»man vintrel-cli« fortæller mere.
)";

struct Command {
    std::string_view word;
    std::size_t needed; ///< arguments, the word among them
    void (*perform)(Session&);
    bool readsSource;
    bool tellsThatItWasStopped; ///< in words of its own, or does not last
    /// What a command copies is worth more than what it prints.
    WriteSignals::BrokenPipe brokenPipe = WriteSignals::BrokenPipe::endsProgram;
};

constexpr Command commands[] = {
    { "list", 1, Commands::list, false, true },
    { "scan", 2, Commands::scan, true, false },
    { "tree", 2, Commands::tree, true, false },
    { "deep", 2, Commands::deep, true, false },
    { "recover", 3, Commands::recover, true, false, WriteSignals::BrokenPipe::failsWrite },
    { "image", 3, Commands::image, true, true, WriteSignals::BrokenPipe::failsWrite },
};

/// The exit status of a command that has ended. What a signal ended must not pass for the whole
/// result, neither with a reader nor with a script.
int statusOf(const Command& command, Session& session)
{
    const auto signal = SignalCancellation::received();
    const bool hasSourceLeft = session.source && session.source->hasLeft();
    if (hasSourceLeft)
        session.console.complain("Advarsel: " + Unicode::escaped(session.source->displayName())
            + " svarer ikke længere, og læsningen blev stoppet.");
    session.output.end(!signal && !hasSourceLeft);
    if ((!signal && !hasSourceLeft) || command.tellsThatItWasStopped)
        return exitDone;
    session.console.complain("Stoppet: resultatet er ufuldstændigt. " + session.reached);
    return signal ? exitBySignal + *signal : exitNoSource;
}

int endWithoutMemory(Session& session)
{
    session.console.complain("Fejl: " + SystemError(ENOMEM).message()
        + ". Resultatet er ufuldstændigt. " + session.reached);
    return exitOutOfMemory;
}

/// Opens the source that the command wants and performs it. Returns the exit status.
int perform(const Command& command, Session& session)
{
    try {
        if (command.readsSource)
            openSource(session);
        command.perform(session);
    } catch (const SourceError& error) {
        session.console.complain("Fejl: " + Unicode::escaped(error.what()));
        session.console.complain(std::string(Advice::after(error)));
        return exitNoSource;
    } catch (const std::bad_alloc&) {
        return endWithoutMemory(session);
    } catch (const std::length_error&) { // more than any memory holds was asked for
        return endWithoutMemory(session);
    }
    return statusOf(command, session);
}

} // namespace

int run(std::span<const std::string> arguments, std::ostream& out, std::ostream& err)
{
    const std::string_view word = arguments.empty() ? std::string_view() : arguments[0];
    if (word == "--version" || word == "--help") {
        if (word == "--version")
            out << "vintrel-cli " VINTREL_VERSION "\n" << std::flush;
        else
            out << usage << optionHelp << std::flush;
        return exitDone;
    }
    const auto* const command = std::ranges::find(commands, word, &Command::word);
    if (command == std::end(commands) || arguments.size() < command->needed) {
        out << usage << std::flush;
        return exitUsage;
    }
    const Options options(arguments);
    StateLine state(err, options.has("--progress") && ::isatty(STDERR_FILENO));
    const auto show = [&state](double fraction, const std::string& message) {
        state.show([&] { return StateLine::describe(fraction, message); });
    };
    Console console(out, err, state);
    std::optional<std::string> problem;
    const Selection selection(arguments, problem);
    const auto output = options.has("--json") ? makeJSONOutput(console) : makeTextOutput(console);
    if (!output)
        problem = "Dette program er bygget uden JSON. Brug det uden --json, eller byg det på en "
                  "maskine, der har nlohmann/json.";
    if (problem) {
        console.complain("Fejl: " + *problem);
        return exitUsage;
    }
    Session session { .arguments = arguments,
        .options = options,
        .selection = selection,
        .console = console,
        .output = *output,
        .progress = WorkProgress(show),
        .source = nullptr };
    const StateRequests requests;
    const SignalCancellation cancellation(session.progress);
    const WriteSignals writeSignals(command->brokenPipe);
    const int status = perform(*command, session);
    if (console.outputError())
        console.complain("Advarsel: ikke alt kunne skrives ud: " + console.outputError().message());
    return status;
}

std::vector<ByteRange> parseByteRanges(std::string_view text)
{
    const auto split = [](std::string_view whole, char separator) {
        std::vector<std::string_view> pieces;
        while (!whole.empty()) {
            const auto piece = whole.substr(0, whole.find(separator));
            whole.remove_prefix(std::min(piece.size() + 1, whole.size()));
            if (!piece.empty())
                pieces.push_back(piece);
        }
        return pieces;
    };

    std::vector<ByteRange> ranges;
    for (const auto piece : split(text, ',')) {
        std::vector<std::uint64_t> numbers;
        for (const auto part : split(piece, '-')) {
            if (const auto value = Text::number(part))
                numbers.push_back(*value);
        }
        if (numbers.size() == 2 && numbers[0] < numbers[1])
            ranges.push_back({ numbers[0], numbers[1] });
    }
    return ranges;
}
