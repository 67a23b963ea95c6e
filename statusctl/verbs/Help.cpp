// help and completion: they need no broker.

#include "statusctl/text/Completions.h"
#include "statusctl/text/Output.h"
#include "statusctl/verbs/Verb.h"

namespace
{

// -------------------------------------------------------------------------------------------------- help

class Help : public IVerb
{
public:
    explicit Help(CLI::App& app) : mApp(app)
    {
        CLI::App& command = Verbs::describe(app, "help", "Print the help of a command",
                                            "statusctl help\n"
                                            "statusctl help watch\n"
                                            "statusctl help timer start");
        command.add_option("COMMAND", mWords, "A command, and perhaps a subcommand");
    }

    ExitCode run(const Settings& settings) override
    {
        const CLI::App* command = &mApp;
        std::string name = mApp.get_name();
        for (const std::string& word : mWords)
        {
            const auto found =
                command->get_subcommands([&](const CLI::App* each) { return each->get_name() == word; });
            if (found.empty())
                fail(word, *command, name);
            command = found.front();
            name += " " + word;
        }
        std::string text = mApp.get_formatter()->make_help(command, name, CLI::AppFormatMode::Normal);
        text.pop_back(); // the last line break
        Output(settings).line(text);
        return ExitCode::Done;
    }

private:
    [[noreturn]] static void fail(const std::string& word, const CLI::App& command, const std::string& name)
    {
        throw Failure(ExitCode::WrongUsage, Verbs::unknown(word, command) + " (see " + name + " --help)");
    }

    CLI::App& mApp;
    std::vector<std::string> mWords;
};

// -------------------------------------------------------------------------------------------- completion

class Completion : public IVerb
{
public:
    explicit Completion(CLI::App& app)
    {
        CLI::App& command =
            Verbs::describe(app, "completion", "Print the completion for a shell",
                            "source <(statusctl completion bash)\n"
                            "statusctl completion zsh > ~/.zfunc/_statusctl\n"
                            "statusctl completion fish | source",
                            "Prints the same text as the installed files, for a shell that does not\n"
                            "read them.");
        command.add_option("SHELL", mShell, "bash, zsh or fish")
            ->required()
            ->check(Verbs::oneOf({"bash", "zsh", "fish"}));
    }

    ExitCode run(const Settings& settings) override
    {
        std::string text = Completions::of(mShell);
        text.pop_back(); // the last line break
        Output(settings).line(text);
        return ExitCode::Done;
    }

private:
    std::string mShell;
};

} // namespace

std::unique_ptr<IVerb> Verbs::addHelp(CLI::App& app)
{
    return std::make_unique<Help>(app);
}

std::unique_ptr<IVerb> Verbs::addCompletion(CLI::App& app)
{
    return std::make_unique<Completion>(app);
}
