// TestHelpers.h - shared helpers of the test suites: a temporary-directory fixture and file helpers.
#pragma once

#include "QtSupport.h"
#include "YString.h"

#include <gtest/gtest.h>

#include <QString>
#include <QTextCodec>
#include <string>

/// The folder of the tests' data files.
std::string testDataPath(const std::string& relative);

/// Writes bytes to a file; fails the test when it cannot.
void writeFileBytes(const std::string& path, const std::string& bytes);
/// Reads a whole file (empty when it cannot be read).
std::string readFileBytes(const std::string& path);

/// The file URL of an absolute path with forward slashes: "file://" and the path, with a third slash
/// before a drive letter on Windows ("file:///C:/...").
std::string fileUrlOf(const std::string& absolutePath);

/// Whether the tests run with the privileges of the super-user (never on Windows, where permission
/// checks do not depend on one user id).
bool runningAsRoot();

/// Restores the locale codec after a test that changes it.
class LocaleCodecGuard {
public:
    LocaleCodecGuard() : m_codec(QTextCodec::codecForLocale()) {}
    ~LocaleCodecGuard() { QTextCodec::setCodecForLocale(m_codec); }

private:
    QTextCodec* m_codec;
};

/// A fresh temporary directory per test, removed afterwards.
class TempDirTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    /// A path inside the temporary directory.
    std::string path(const std::string& name) const { return m_dir + "/" + name; }
    std::string m_dir;
};

void PrintTo(const YString& s, std::ostream* os);
void PrintTo(const QString& s, std::ostream* os);
void PrintTo(UTF8DetectEncoding e, std::ostream* os);
