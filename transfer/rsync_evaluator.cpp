// Reading a copy process's report to its end.
#include "transfer/rsync_evaluator.h"

#include "daemon/global.h"
#include "transfer/handoff_pipe.h"
#include "transfer/report.h"
#include "utilities/piece_reader.h"

RsyncEvaluator::RsyncEvaluator(int fd, const std::string& targetDirectory)
    : report(fd), log(nullptr), target(targetDirectory) {
    log.setMutex(mutex());
    log.open(GLOBAL::logFileName);
}

void RsyncEvaluator::run() {
    HandoffPipe handoffPipe(log, target);
    handoffPipe.open();

    TransferAccount account;
    PieceReader reader(report.get());
    std::string_view piece;
    while (reader.next(piece)) {
        const ReportLine line = parseReportLine(piece);
        switch (line.kind) {
        case ReportLine::Kind::confirmed:
            account.addConfirmed(line.name);
            handoffPipe.pass(line.name);
            break;
        case ReportLine::Kind::sent:
            account.addSent(line.name);
            break;
        case ReportLine::Kind::output:
            account.addOutput(piece);
            break;
        case ReportLine::Kind::skipped:
            break;
        }
    }
    handoffPipe.close();
    report.reset();

    log.log(account.summary());
}
