#pragma once

#include <QTest>

// Runs a helper that checks with QVERIFY or QCOMPARE, and ends the calling test when
// one of its checks failed: a failing check returns only from the helper itself.
#define VERIFY_HELPER(call)                                                                                            \
    do {                                                                                                               \
        call;                                                                                                          \
        if (QTest::currentTestFailed())                                                                                \
            return;                                                                                                    \
    } while (false)
