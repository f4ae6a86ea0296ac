// The compliance report from the command line: verdicts on files built to
// sit just inside and just outside each limit, and a report after a run
// made of the same figures as the JSON.
#include "tests/cli/CliTestUtil.h"
#include "tests/support/Fixtures.h"

#include <QJsonObject>
#include <QXmlStreamReader>

#include <cmath>
#include <map>
#include <gtest/gtest.h>

using CliCompliance = CliFolderTest;

namespace {

// A 997 Hz tone on both channels reads its own level in LUFS (BS.1770 gives
// -3.01 LUFS a channel at full scale); amplitude from dB.
QString amplitude(double db) { return QString::number(std::pow(10.0, db / 20.0), 'f', 6); }

// Seconds of the tone at level dB, a single sample of peakDb at 0.5 s (on a
// zero of the tone), and from 4 to 8 s the tone at burstDb instead.
QString makeTone(const QString &dir, const QString &name, double seconds, double db, double peakDb = NAN,
                 double burstDb = NAN)
{
    QString expr = QStringLiteral("%1*sin(2*PI*997*t)").arg(amplitude(db));
    if (!std::isnan(burstDb))
        expr = QStringLiteral("(%1*(1-between(t,4,8))+%2*between(t,4,8))*sin(2*PI*997*t)")
                   .arg(amplitude(db), amplitude(burstDb));
    if (!std::isnan(peakDb))
        expr += QStringLiteral("+if(eq(n,24000),%1,0)").arg(amplitude(peakDb));
    expr.replace(',', "\\,");  // inside a filter graph, a comma ends the filter
    const QString path = QDir(dir).filePath(name);
    const bool ok = fixtures::run("ffmpeg", {"-hide_banner", "-loglevel", "error", "-y", "-f", "lavfi", "-i",
                                             QStringLiteral("aevalsrc=%1|%1:s=48000:d=%2").arg(expr).arg(seconds),
                                             "-c:a", "pcm_f32le", path});
    return ok ? path : QString();
}

// The CSV's rows by file name, each a map from column to cell.
std::map<QString, std::map<QString, QString>> readCsv(const QString &path)
{
    const QStringList lines = QString::fromUtf8(fixtures::readFile(path)).split("\r\n", Qt::SkipEmptyParts);
    std::map<QString, std::map<QString, QString>> rows;
    if (lines.isEmpty())
        return rows;
    const QStringList header = lines.first().split(',');
    for (const QString &line : lines.mid(1)) {
        const QStringList cells = line.split(',');
        std::map<QString, QString> row;
        for (qsizetype c = 0; c < header.size(); ++c)
            row[header[c]] = cells.value(c);
        rows[QFileInfo(cells.value(0)).fileName()] = row;
    }
    return rows;
}

} // namespace

TEST_F(CliCompliance, VerdictsOnFilesJustInsideAndOutsideEachLimit)
{
    const QString in = tmp.filePath("in");
    QDir().mkpath(in);
    struct Case {
        const char *name;
        double db, peakDb, burstDb;
        const char *column;
        const char *verdict;
        double figure;  // where the file was built to sit
        const char *key;
    };
    // R128 s1: -23 LUFS +-0.5 LU, true peak at most -1 dBTP, short-term at most -18 LUFS.
    const Case cases[] = {
        {"loud-in.wav", -22.6, NAN, NAN, "integrated", "pass", -22.6, "input_i"},
        {"loud-out.wav", -22.3, NAN, NAN, "integrated", "fail", -22.3, "input_i"},
        {"quiet-in.wav", -23.4, NAN, NAN, "integrated", "pass", -23.4, "input_i"},
        {"quiet-out.wav", -23.7, NAN, NAN, "integrated", "fail", -23.7, "input_i"},
        {"peak-in.wav", -23.0, -1.1, NAN, "true_peak", "pass", -1.1, "input_tp"},
        {"peak-out.wav", -23.0, -0.85, NAN, "true_peak", "fail", -0.85, "input_tp"},
        {"burst-in.wav", -26.0, NAN, -18.15, "short_term", "pass", -18.15, "max_short_term"},
        {"burst-out.wav", -26.0, NAN, -17.85, "short_term", "fail", -17.85, "max_short_term"},
    };
    for (const Case &c : cases)
        ASSERT_FALSE(makeTone(in, c.name, 12, c.db, c.peakDb, c.burstDb).isEmpty()) << c.name;

    const QString csv = tmp.filePath("report.csv");
    const CliRunResult r = runCli({"--analyze", "--preset", "ebu-s1", "--json", "--report", csv, in});
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    EXPECT_TRUE(r.err.contains("Report written to " + csv)) << r.err.toStdString();
    std::map<QString, QJsonObject> json;
    for (const QJsonValue &v : r.json())
        json[QFileInfo(v["input"].toString()).fileName()] = v.toObject();
    const auto rows = readCsv(csv);
    ASSERT_EQ(rows.size(), std::size(cases));
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        // The fixture sits where it was meant to, or the verdict proves nothing.
        ASSERT_NEAR(json[c.name][c.key].toDouble(), c.figure, 0.07);
        const std::map<QString, QString> &row = rows.at(c.name);
        EXPECT_EQ(row.at(c.column), c.verdict);
        EXPECT_EQ(row.at("standard"), "ebu-s1");
        EXPECT_EQ(row.at("judged"), "input");
        // The report's figures are the JSON's.
        EXPECT_EQ(row.at("input_i").toDouble(), std::round(json[c.name]["input_i"].toDouble() * 100) / 100);
        if (QLatin1String(c.verdict) == QLatin1String("fail")) {
            EXPECT_EQ(row.at("verdict"), "fail");
        }
    }
    EXPECT_EQ(rows.at("loud-in.wav").at("verdict"), "pass");
}

// After a run the page shows the input and the result, from the JSON's
// figures, with one picture a file; nothing else is written beside it.
TEST_F(CliCompliance, AfterARunTheReportHoldsTheJsonsBeforeAndAfter)
{
    const QString wav = fixtures::makeWav(tmp.path(), "music.wav", 8, -9);
    ASSERT_FALSE(wav.isEmpty());
    const QString out = tmp.filePath("out");
    const QString html = tmp.filePath("report.html");
    const CliRunResult r = runCli({"--preset", "ebu", "-o", out, "--json", "--report", html, wav});
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    const QJsonObject o = r.json().at(0).toObject();
    ASSERT_EQ(o["result"].toString(), "ok");
    // The result's maxima were measured for the report, and are in the JSON.
    EXPECT_NEAR(o["output_max_short_term"].toDouble(), o["max_short_term"].toDouble() + o["gain_db"].toDouble(), 0.2);

    QXmlStreamReader xml(fixtures::readFile(html));
    QStringList cells;
    int pictures = 0;
    while (!xml.atEnd()) {
        xml.readNext();
        if (xml.isStartElement() && xml.name() == u"img")
            ++pictures;
        if (xml.isStartElement() && xml.name() == u"td")
            cells << xml.readElementText(QXmlStreamReader::IncludeChildElements);
    }
    ASSERT_FALSE(xml.hasError()) << xml.errorString().toStdString();
    EXPECT_EQ(pictures, 1);
    const QString before = QString::number(o["input_i"].toDouble(), 'f', 1) + " LUFS fail";
    const QString after = QString::number(o["output_i"].toDouble(), 'f', 1) + " LUFS pass";
    EXPECT_TRUE(cells.contains(before)) << cells.join(" | ").toStdString();
    EXPECT_TRUE(cells.contains(after)) << cells.join(" | ").toStdString();
    EXPECT_EQ(entries(tmp.path()), (QStringList{"music.wav", "report.html"}));
    EXPECT_EQ(entries(out), QStringList{"music.wav"});
}
