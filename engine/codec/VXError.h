#pragma once

#include <QString>
#include <QVariantMap>

// The error object of a failed open: what went wrong, for a log line, and a
// user-info map that callers query by key (VXTranscodingDRMProtected).
struct VXError {
    QString domain;
    int code = 0;
    QString description;
    QVariantMap userInfo;
};
