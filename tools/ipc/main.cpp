// Shows what the library's processes share on this machine, and removes what nobody uses.

#include "Objects.h"
#include "common/Printable.h"
#include "common/Tool.h"

#include <cstdio>
#include <ctime>
#include <system_error>

namespace {

using namespace velahost_tools;

struct Options
{
    std::vector<std::string> handles;
    std::set<pid_t> unrelated;
    bool json = false;
    bool yes = false;
    unsigned int idleSeconds = 60;
};

/// The objects with those handles, or all without one. It is an error when one isn't there.
std::vector<Object> Find(const Processes& processes, const std::vector<std::string>& handles)
{
    if (handles.empty()) {
        return FindObjects(processes);
    }
    std::vector<Object> objects;
    for (const std::string& handle : handles) {
        std::optional<Object> object = FindObject(processes, handle);
        if (!object) {
            throw ToolError(Refused, "there is no " + handle);
        }
        objects.push_back(*std::move(object));
    }
    return objects;
}

Json Describe(const Object& object)
{
    Json users = Json::array();
    for (const User& user : object.users) {
        users.push_back({{"process", user.pid}, {"program", user.program}, {"role", user.role}});
    }
    Json description{{"handle", object.handle}, {"state", GetName(object.state)}};
    if (!object.reason.empty()) {
        description["reason"] = object.reason;
    }
    description["users"] = std::move(users);
    description.update(object.details);
    return description;
}

void PrintAsJson(const std::vector<Object>& objects)
{
    Json descriptions = Json::array();
    for (const Object& object : objects) {
        descriptions.push_back(Describe(object));
    }
    PrintJson(descriptions);
}

std::string NameUsers(const Object& object)
{
    std::string names;
    for (const User& user : object.users) {
        names +=
            (names.empty() ? "" : ", ") + std::to_string(user.pid) + ' ' + Printable(user.program);
    }
    return names.empty() ? "-" : names;
}

ExitStatus List(const Options& options)
{
    const std::vector<Object> objects = Find(Processes(options.unrelated), options.handles);
    if (options.json) {
        PrintAsJson(objects);
        return Success;
    }
    for (const Object& object : objects) {
        std::printf("%-24s %-9s  %s; %s\n", Printable(object.handle).c_str(), GetName(object.state),
                    object.summary.c_str(), NameUsers(object).c_str());
    }
    return Success;
}

ExitStatus Show(const Options& options)
{
    const std::vector<Object> objects = Find(Processes(options.unrelated), options.handles);
    if (options.json) {
        PrintAsJson(objects);
        return Success;
    }
    for (const Object& object : objects) {
        std::printf("%s\n  %-13s %s\n", Printable(object.handle).c_str(), "state",
                    GetName(object.state));
        if (!object.reason.empty()) {
            std::printf("  %-13s %s\n", "because", object.reason.c_str());
        }
        for (const User& user : object.users) {
            std::printf("  %-13s %d %s (%s)\n", "process", static_cast<int>(user.pid),
                        Printable(user.program).c_str(), user.role.c_str());
        }
        for (const auto& [name, value] : object.details.items()) {
            const std::string text =
                value.is_string() ? Printable(value.get_ref<const std::string&>()) : value.dump();
            std::printf("  %-13s %s\n", name.c_str(), text.c_str());
        }
    }
    return Success;
}

/// Why an object must stay; nothing when it may go.
std::string ReasonToKeep(const Object& object, unsigned int idleSeconds)
{
    if (object.state == State::Used) {
        return "used by " + NameUsers(object);
    }
    if (object.state == State::Uncertain) {
        return object.reason;
    }
    const auto age = static_cast<long long>(std::time(nullptr) - object.lastUsed);
    if (age < static_cast<long long>(idleSeconds)) {
        return "used " + std::to_string(age) + " s ago";
    }
    return "";
}

/// Asks the user; no answer means no.
bool Agrees(const Object& object)
{
    std::printf("remove %s (%s)? [y/N] ", Printable(object.handle).c_str(), object.summary.c_str());
    std::fflush(stdout);
    char answer[16] = {};
    return std::fgets(answer, sizeof answer, stdin) != nullptr &&
           (answer[0] == 'y' || answer[0] == 'Y');
}

/// False when something was to go and could not.
bool Remove(const Object& candidate, const Options& options)
{
    const std::string handle = Printable(candidate.handle);
    // While the user thought about it, somebody may have come.
    const std::optional<Object> now = FindObject(Processes(options.unrelated), candidate.handle);
    if (!now) {
        std::printf("%s is gone already\n", handle.c_str());
        return true;
    }
    if (const std::string reason = ReasonToKeep(*now, options.idleSeconds); !reason.empty()) {
        std::fprintf(stderr, "%s stays: %s\n", handle.c_str(), reason.c_str());
        return false;
    }
    try {
        now->remove();
        std::printf("removed %s\n", handle.c_str());
        return true;
    } catch (const std::system_error& e) {
        std::fprintf(stderr, "can't remove %s: %s\n", handle.c_str(), e.what());
        return false;
    }
}

ExitStatus Clean(const Options& options)
{
    ExitStatus status = Success;
    for (const Object& object : Find(Processes(options.unrelated), options.handles)) {
        const std::string reason = ReasonToKeep(object, options.idleSeconds);
        if (!reason.empty()) {
            const bool asked = !options.handles.empty();
            if (asked || object.state != State::Used) {
                std::fprintf(stderr, "%s stays: %s\n", Printable(object.handle).c_str(),
                             reason.c_str());
            }
            status = asked ? Refused : status;
        } else if ((options.yes || Agrees(object)) && !Remove(object, options)) {
            status = Refused;
        }
    }
    return status;
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    CLI::App app("Shows what processes share through the library: queues, locks, memory files.",
                 "velahost-ipc");
    app.require_subcommand(1);
    CLI::App* list = app.add_subcommand("list", "One line for each object");
    CLI::App* show = app.add_subcommand("show", "Everything that is known about an object");
    CLI::App* clean = app.add_subcommand("clean", "Remove what nobody uses");
    for (CLI::App* command : {list, show, clean}) {
        command
            ->add_option("HANDLE", options.handles,
                         "queue:NUMBER, queue:PATH:ID, lock:NAME, semaphore:NUMBER or memory:PATH")
            ->required(command == show);
        command
            ->add_option_function<std::vector<pid_t>>(
                "--unrelated",
                [&options](const std::vector<pid_t>& pids) {
                    options.unrelated.insert(pids.begin(), pids.end());
                },
                "A process that is known to use none of the objects, though that can't be seen")
            ->type_name("PID")
            ->allow_extra_args(false);
    }
    for (CLI::App* command : {list, show}) {
        command->add_flag("--json", options.json, "Print JSON");
    }
    clean->add_flag("--yes", options.yes, "Remove without asking");
    clean->add_option("--idle", options.idleSeconds, "Leave what was used in the last SECONDS")
        ->type_name("SECONDS")
        ->capture_default_str();
    const auto run = [&] {
        if (list->parsed()) {
            return List(options);
        }
        return show->parsed() ? Show(options) : Clean(options);
    };
    return RunTool(app, argc, argv, run, CannotAnswer);
}
