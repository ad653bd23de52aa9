// An Outlook stand-in for machines without Outlook: it loads the add-ins
// registered for Outlook, offers them Outlook's object model and ribbon, and
// drags and copies mails and attachments of a sample mailbox the way Outlook
// does, through its own import table.
//
//   outlook_standin.exe [options] step...
//
// options:
//   --target <title>         the drop target's window title ("Korvane drop target")
//   --target-report <file>   the drop target's report, to see what it received
//   --result <file>          one line per step, for programs that check the run
//   --log <file>             the add-in's log, for the readable report
//   --print                  print the readable report at the end
// steps, carried out in order:
//   set:<Name>=<value>       an add-in setting in the current user's key
//   reset-settings           removes the add-in's settings key
//   connect                  loads the add-ins: OnConnection, OnAddInsUpdate,
//                            OnStartupComplete; waits until the drag is intercepted
//   ribbon                   GetCustomUI and the ribbon's onLoad
//   press:<control>=<value>  a ribbon control: true/false, or a drop-down item id
//   drag:<selection>         a drag into the target; drag-shift:<selection> holds Shift
//   copy:<selection>         OleSetClipboard with the selection
//   paste                    the target pastes what the clipboard holds
//   wait:<ms>                runs messages for a while
//   mailbox:<folder>         writes the sample mailbox as .msg files and attachments
//   bench[:1,100,1000]       the timing table (after connect)
//   shutdown                 OnBeginShutdown, OnDisconnection
// selections: all, mails, attachments, small, mail:<i>, indexes "0,3,9",
//   hostile, unreadable, bench:<count>
#include "standin_session.h"

#include <ole2.h>

#include <cstdio>
#include <string>
#include <vector>

int wmain(int argc, wchar_t** argv)
{
    StandInOptions options;
    options.targetTitle = L"Korvane drop target";
    std::vector<std::wstring> steps;
    for (int i = 1; i < argc; ++i) {
        const std::wstring argument = argv[i];
        const bool hasValue = i + 1 < argc;
        if (argument == L"--target" && hasValue)
            options.targetTitle = argv[++i];
        else if (argument == L"--target-report" && hasValue)
            options.targetReport = argv[++i];
        else if (argument == L"--result" && hasValue)
            options.resultPath = argv[++i];
        else if (argument == L"--log" && hasValue)
            options.logPath = argv[++i];
        else if (argument == L"--print")
            options.print = true;
        else
            steps.push_back(argument);
    }
    if (steps.empty()) {
        std::fputs("usage: outlook_standin.exe [--target <title>] [--target-report <file>] [--result <file>] "
                   "[--log <file>] [--print] step...\n",
                   stderr);
        return 2;
    }
    // Outlook's user-interface thread: a single-threaded apartment with OLE.
    if (FAILED(OleInitialize(nullptr)))
        return 1;
    int failed = 0;
    {
        StandInSession session(options);
        for (const std::wstring& step : steps) {
            if (!session.run(step)) {
                ++failed;
                std::fwprintf(stderr, L"outlook_standin: step \"%ls\" did not complete\n", step.c_str());
            }
        }
        if (session.benchmarked())
            std::printf("\n| Connection event | ms | Outlook's limit (ms) |\n|---|---|---|\n"
                        "| OnConnection | %.1f | 1000 |\n| OnDisconnection | %.1f | 500 |\n",
                        session.times().onConnection, session.times().onDisconnection);
        if (options.print)
            printReadableReport(session);
    }
    OleUninitialize();
    return failed == 0 ? 0 : 1;
}
