#pragma once
#include <QString>

// Exit codes of corvanta-publish.
constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;  // a refusal, a failed check, a file that could not be written
constexpr int kExitUsage = 2;    // the command line itself is wrong

// Results go to stdout; errors and progress go to stderr, prefixed with the tool's name.
// Both are UTF-8 and end with a line feed.
void printOut(const QString& text);
void printError(const QString& text);

// printError(text) and kExitFailure.
int fail(const QString& text);
// printError(text) with a pointer to the help of `command`, and kExitUsage.
int usageError(const QString& command, const QString& text);

// "1 patch", "2 patches": a count with the noun in the right number.
QString counted(int count, const QString& one, const QString& many);
