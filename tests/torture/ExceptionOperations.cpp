#include "Operation.h"

#include <VelaHost_Ipc/IpcMsgException.h>
#include <VelaHost_Ipc/IpcSocketException.h>
#include <VelaHost_Utility/Exception.h>
#include <VelaHost_Utility/Properties.h>
#include <VelaHost_Utility/Timer.h>

namespace velahost_test {

namespace {

using VelaHost_Utility::BadParmException;
using VelaHost_Utility::BadStateException;
using VelaHost_Utility::DefaultExceptionLogger;
using VelaHost_Utility::Exception;
using VelaHost_Utility::FeatureNotSupportedException;
using VelaHost_Utility::NotImplementedException;
using VelaHost_Utility::SystemException;

constexpr Exception::Context s_Here(nullptr, "a/source/of/the/program", 12, DefaultExceptionLogger);

struct NoState
{
    static std::string GetState() { return ""; }
};

/// An exception that has been logged and is about to be logged again.
struct Made
{
    NotImplementedException exception{{nullptr, "elsewhere", 1, [](const Exception&) {}},
                                      "a detail that needs memory"};

    static std::string GetState() { return ""; }
};

std::string Line(const std::string& text)
{
    return text + " at a/source/of/the/program:12\n";
}

/// Constructing it is logging it: neither a failed write nor a failed flush is noticed.
Operation Constructing(const std::string& name, Told (*run)(NoState&), const std::string& text)
{
    const Effect usual = Tells(text).Prints(Line(text));
    return {name,
            With<NoState>(run),
            usual,
            {{"puts", Row::each, EIO, Unlogged(usual)}, {"fflush", Row::each, EIO, Ignored()}}};
}

/// Its detail is expanded by printf: it is cut where that fails, unless memory is what it lacks.
Operation Expanding(const std::string& name, Told (*run)(NoState&), const std::string& text,
                    const std::string& cutText)
{
    Operation operation = Constructing(name, run, text);
    operation.failures.push_back(
        {"vsnprintf", Row::each, EILSEQ, Tells(cutText).Prints(Line(cutText))});
    operation.failures.push_back({"vsnprintf", Row::each, ENOMEM, OutOfMemory()});
    return operation;
}

Told Text(const Exception& exception)
{
    return Told(exception.GetText().c_str());
}

} // namespace

std::vector<Operation> ExceptionOperations()
{
    const Effect logged = Tells("logged").Prints(
        "NotImplementedException(a detail that needs memory) at elsewhere:1\n");

    return {
        Expanding(
            "BadParmException_Construct",
            [](NoState&) { return Text(BadParmException(s_Here, 3, "value %d", 17)); },
            "BadParmException(Index=3,value 17)", "BadParmException(Index=3,)"),
        Expanding(
            "BadStateException_Construct",
            [](NoState&) { return Text(BadStateException(s_Here, "state %s", "off")); },
            "BadStateException(state off)", "BadStateException()"),
        Constructing(
            "NotImplementedException_Construct",
            [](NoState&) { return Text(NotImplementedException(s_Here, "flight")); },
            "NotImplementedException(flight)"),
        Constructing(
            "FeatureNotSupportedException_Construct",
            [](NoState&) { return Text(FeatureNotSupportedException(s_Here, "flight")); },
            "FeatureNotSupportedException(flight)"),
        Constructing(
            "SystemException_Construct",
            [](NoState&) {
                errno = EACCES;
                return Text(SystemException(s_Here, 0x2002));
            },
            "SystemException(SysErr=0xd)"),
        Constructing(
            "TimerException_Construct",
            [](NoState&) { return Text(VelaHost_Utility::TimerException(s_Here, 0x2004, 0xab)); },
            "TimerException(Sys=0xab)"),
        Constructing(
            "PropertiesException_Construct",
            [](NoState&) { return Text(VelaHost_Utility::PropertiesException(s_Here)); },
            "PropertiesException"),
        Constructing(
            "IpcSocketException_Construct",
            [](NoState&) { return Text(VelaHost_Ipc::IpcSocketException(s_Here, 0x2101)); },
            "IpcSocketException"),
        Constructing(
            "IpcMsgException_Construct",
            [](NoState&) { return Text(VelaHost_Ipc::IpcMsgException(s_Here)); },
            "IpcMsgException"),

        {"Exception_LogMe",
         With<Made>([](Made& f) {
             DefaultExceptionLogger(f.exception);
             return Told("logged");
         }),
         logged,
         {{"puts", Row::each, EIO, Unlogged(logged)}, {"fflush", Row::each, EIO, Ignored()}}},
    };
}

} // namespace velahost_test
