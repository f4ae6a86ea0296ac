// The compliance report: each standard's limits as its document sets them,
// and the three formats read back as a browser, a spreadsheet and a PDF
// reader would.
#include "engine/VXCompliance.h"
#include "engine/VXLoudnessScale.h"
#include "engine/VXReport.h"

#include <QDir>
#include <QFile>
#include <QImage>
#include <QJsonObject>
#include <QProcess>
#include <QSet>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QUrl>
#include <QXmlStreamReader>
#include <gtest/gtest.h>

#include <cmath>

namespace {

VXLimits named(const char *name) { return VXLimitsOf(*VXPresetNamed(name)); }

// A record as --json prints it; the output's figures only after a run.
QJsonObject record(const QString &input, double i, double tp, double maxS = NAN, double outI = NAN, double outTp = NAN)
{
    auto n = [](double v) { return std::isfinite(v) ? QJsonValue(v) : QJsonValue(); };
    return QJsonObject{{"input", input},
                       {"output", std::isfinite(outI) ? QJsonValue(input + ".out.wav") : QJsonValue()},
                       {"result", std::isfinite(outI) ? "ok" : "analyzed"},
                       {"target_lufs", -23.0},
                       {"input_i", n(i)},
                       {"input_tp", n(tp)},
                       {"input_lra", 6.5},
                       {"max_short_term", n(maxS)},
                       {"max_momentary", n(std::isfinite(maxS) ? maxS + 2.0 : NAN)},
                       {"output_i", n(outI)},
                       {"output_tp", n(outTp)},
                       {"output_lra", n(std::isfinite(outI) ? 6.5 : NAN)}};
}

// Two minutes of a curve that rises and falls.
std::vector<float> curve(double level)
{
    std::vector<float> c(1200);
    for (size_t k = 0; k < c.size(); ++k)
        c[k] = float(level + 4.0 * std::sin(double(k) / 60.0));
    return c;
}

VXReportFile file(const QJsonObject &r, const VXLimits &limits, bool withCurve = true)
{
    VXReportFile f;
    f.record = r;
    f.limits = limits;
    if (withCurve) {
        f.inputCurve = curve(r["input_i"].toDouble(-30));
        if (r["output_i"].isDouble())
            f.outputCurve = curve(r["output_i"].toDouble());
    }
    return f;
}

// The report's sample set: one passes, one fails before and passes after a
// run, one fails its true peak, one was never measured.
QList<VXReportFile> sampleFiles()
{
    const VXLimits ebu = named("ebu");
    return {file(record("/in/pass.wav", -23.1, -3.0), ebu),
            file(record("/in/fixed, \"quoted\".wav", -16.0, -4.0, NAN, -23.0, -10.9), ebu),
            file(record("=peaky.wav", -22.8, -0.4), ebu),
            file(QJsonObject{{"input", "/in/missing.wav"}, {"result", "missing"}, {"reason", "no such file"}}, ebu,
                 false)};
}

} // namespace

// The numbers each standard's document gives, inclusive, and the one
// limit a file misses named on its own.
TEST(Compliance, EachStandardHoldsItsDocumentsLimits)
{
    struct Case {
        const char *name;
        double target, tolerance, maxTp, maxS;
    };
    const Case cases[] = {{"ebu", -23, 0.5, -1, NAN}, {"ebu-s1", -23, 0.5, -1, -18}, {"atsc", -24, 2, -2, NAN},
                          {"podcast", -16, 1, -1, NAN}, {"streaming", -14, 1, -1, NAN}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        const VXLimits l = named(c.name);
        // Short-term within its limit, where there is one.
        const double quiet = c.maxS - 1.0;
        auto judge = [&](double i, double tp, double s) { return VXJudge({i, tp, 5.0, s, NAN}, l); };
        for (const double side : {-1.0, 1.0}) {
            EXPECT_EQ(judge(c.target + side * c.tolerance, c.maxTp, quiet).integrated, VXVerdict::Pass);  // at the edge
            EXPECT_EQ(judge(c.target + side * (c.tolerance - 0.05), c.maxTp, quiet).overall(), VXVerdict::Pass);
            const VXJudgement out = judge(c.target + side * (c.tolerance + 0.05), c.maxTp, quiet);
            EXPECT_EQ(out.integrated, VXVerdict::Fail);
            EXPECT_EQ(out.truePeak, VXVerdict::Pass);
            EXPECT_EQ(out.overall(), VXVerdict::Fail);
        }
        EXPECT_EQ(judge(c.target, c.maxTp + 0.05, quiet).truePeak, VXVerdict::Fail);
        EXPECT_EQ(judge(c.target, c.maxTp - 0.05, quiet).truePeak, VXVerdict::Pass);
        if (std::isnan(c.maxS)) {
            EXPECT_EQ(judge(c.target, c.maxTp, 0.0).shortTerm, VXVerdict::Unlimited);
        } else {
            EXPECT_EQ(judge(c.target, c.maxTp, c.maxS + 0.05).shortTerm, VXVerdict::Fail);
            EXPECT_EQ(judge(c.target, c.maxTp, c.maxS - 0.05).shortTerm, VXVerdict::Pass);
            // A limit the file was not measured for cannot be passed.
            EXPECT_EQ(judge(c.target, c.maxTp, NAN).overall(), VXVerdict::Unmeasured);
        }
        EXPECT_TRUE(std::isnan(l.maxMomentary));  // no current document limits it
        EXPECT_EQ(judge(NAN, NAN, NAN).overall(), VXVerdict::Unmeasured);
    }
    // Named, found by its level, or the run's own target and ceiling.
    EXPECT_EQ(VXLimitsFor(u"EBU-S1", -24.0, -2.0).name, QStringLiteral("ebu-s1"));
    EXPECT_EQ(VXLimitsFor({}, -24.0, -5.0).name, QStringLiteral("atsc"));
    const VXLimits own = VXLimitsFor({}, -20.0, -3.0);
    EXPECT_TRUE(own.name.isEmpty());
    EXPECT_EQ(own.maxTruePeak, -3.0);
    EXPECT_EQ(VXJudge({-20.6, -3.0}, own).integrated, VXVerdict::Fail);
}

// One self-contained page: well-formed, every measured file's picture
// inline as a PNG, failures listed first, small enough for a thousand files.
TEST(Report, HtmlParsesAndHoldsOnePicturePerFile)
{
    const QList<VXReportFile> files = sampleFiles();
    const QByteArray html = VXReportHtml(files);
    QXmlStreamReader xml(html);
    QStringList sections, overview;
    int pictures = 0;
    bool inOverview = false;
    while (!xml.atEnd()) {
        xml.readNext();
        if (!xml.isStartElement()) {
            if (xml.isEndElement() && xml.name() == u"table")
                inOverview = false;
            continue;
        }
        const auto attributes = xml.attributes();
        if (xml.name() == u"table" && attributes.value("class") == u"overview")
            inOverview = true;
        if (inOverview && xml.name() == u"a")
            overview << xml.readElementText();
        if (xml.name() == u"div" && attributes.value("class") == u"file")
            sections << attributes.value("id").toString();
        if (xml.name() == u"img") {
            const QString src = attributes.value("src").toString();
            ASSERT_TRUE(src.startsWith("data:image/png;base64,")) << src.left(40).toStdString();
            const QImage image = QImage::fromData(QByteArray::fromBase64(src.section(',', 1).toLatin1()), "PNG");
            EXPECT_EQ(image.size(), QSize(720, 240));
            ++pictures;
        }
    }
    ASSERT_FALSE(xml.hasError()) << xml.errorString().toStdString() << " at line " << xml.lineNumber();
    EXPECT_EQ(pictures, 3);  // the missing file has none
    // Failures, then not measured, then passes; the given order within each.
    EXPECT_EQ(sections, (QStringList{"f2", "f3", "f0", "f1"}));
    EXPECT_EQ(overview, (QStringList{"=peaky.wav", "missing.wav", "pass.wav", "fixed, \"quoted\".wav"}));
    // Before and after only where there was a run.
    EXPECT_EQ(html.count("<th>After</th>"), 1);
    EXPECT_LT(html.size() / files.size(), 200 * 1024);
}

TEST(Report, CsvColumnsInTheRunsOrder)
{
    const QStringList lines = QString::fromUtf8(VXReportCsv(sampleFiles())).split("\r\n", Qt::SkipEmptyParts);
    ASSERT_EQ(lines.size(), 5);
    const QStringList header = lines[0].split(',');
    EXPECT_EQ(header,
              (QStringList{"file", "output", "result", "reason", "standard", "target_lufs", "tolerance_lu",
                           "max_true_peak", "max_short_term_limit", "max_momentary_limit", "input_i", "input_tp",
                           "input_lra", "max_short_term", "max_momentary", "output_i", "output_tp", "output_lra",
                           "output_max_short_term", "output_max_momentary", "judged", "integrated", "true_peak",
                           "short_term", "momentary", "verdict"}));
    auto cell = [&](int line, const char *column) { return lines[line].split(',').value(header.indexOf(column)); };
    EXPECT_EQ(cell(1, "file"), "/in/pass.wav");
    EXPECT_EQ(cell(1, "standard"), "ebu");
    EXPECT_EQ(cell(1, "input_i"), "-23.10");
    EXPECT_EQ(cell(1, "max_short_term_limit"), "");
    EXPECT_EQ(cell(1, "verdict"), "pass");
    // A name with a comma and quotes is one quoted field.
    EXPECT_TRUE(lines[2].startsWith("\"/in/fixed, \"\"quoted\"\".wav\",\"/in/fixed, \"\"quoted\"\".wav.out.wav\",ok,"))
        << lines[2].toStdString();
    // A name a spreadsheet would take for a formula stays text.
    EXPECT_TRUE(lines[3].startsWith("'=peaky.wav,,analyzed,")) << lines[3].toStdString();
    EXPECT_EQ(cell(3, "integrated"), "pass");
    EXPECT_EQ(cell(3, "true_peak"), "fail");
    EXPECT_EQ(cell(3, "verdict"), "fail");
    EXPECT_EQ(cell(4, "verdict"), "not measured");
    EXPECT_EQ(cell(4, "reason"), "no such file");
}

// A PDF is written whole; a name with no format, or a place that cannot be
// written, leaves nothing behind and says why.
TEST(Report, PdfAndRefusals)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString pdf = dir.filePath("report.PDF");
    const VXResult<VXReportCounts> written = VXWriteReport(pdf, sampleFiles());
    ASSERT_TRUE(written.ok()) << written.reason().toStdString();
    EXPECT_EQ(written->files, 4);
    EXPECT_EQ(written->failed, 1);
    EXPECT_EQ(written->unmeasured, 1);
    EXPECT_EQ(written->passed, 2);
    QFile f(pdf);
    ASSERT_TRUE(f.open(QIODevice::ReadOnly));
    const QByteArray bytes = f.readAll();
    EXPECT_TRUE(bytes.startsWith("%PDF-"));
    EXPECT_TRUE(bytes.contains("/Type /Page"));
    EXPECT_TRUE(bytes.contains("/Subtype /Image"));  // the pictures

    EXPECT_FALSE(VXWriteReport(dir.filePath("report.txt"), sampleFiles()).ok());
    const VXResult<VXReportCounts> nowhere = VXWriteReport(dir.filePath("no/such/folder/r.csv"), sampleFiles());
    EXPECT_FALSE(nowhere.ok());
    EXPECT_TRUE(nowhere.reason().contains("no/such/folder")) << nowhere.reason().toStdString();
    EXPECT_EQ(QDir(dir.path()).entryList(QDir::Files), QStringList{"report.PDF"});
}

// Where Chromium is installed, the page is drawn headless: a blank or
// broken page would come out as one colour.
TEST(Report, LooksRightInChromium)
{
    QString chromium;
    for (const char *name : {"chromium", "chromium-browser", "google-chrome"})
        if (chromium.isEmpty())
            chromium = QStandardPaths::findExecutable(QString::fromLatin1(name));
    if (chromium.isEmpty())
        GTEST_SKIP() << "no chromium installed";
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    ASSERT_TRUE(VXWriteReport(dir.filePath("report.html"), sampleFiles()).ok());
    const QString shot = dir.filePath("shot.png");
    QProcess p;
    p.setProcessChannelMode(QProcess::MergedChannels);
    p.start(chromium, {"--headless", "--no-sandbox", "--disable-gpu", "--disable-background-networking",
                       "--disable-component-update", "--disable-sync", "--no-first-run",
                       "--user-data-dir=" + dir.filePath("profile"), "--window-size=1000,1400",
                       "--screenshot=" + shot, QUrl::fromLocalFile(dir.filePath("report.html")).toString()});
    ASSERT_TRUE(p.waitForFinished(180000)) << "chromium did not finish";
    const QImage image(shot);
    ASSERT_FALSE(image.isNull()) << p.readAll().toStdString();
    QSet<QRgb> colours;
    qsizetype ink = 0;
    for (int y = 0; y < image.height(); y += 2)
        for (int x = 0; x < image.width(); x += 2) {
            const QRgb c = image.pixel(x, y);
            colours.insert(c);
            ink += qGray(c) < 200;
        }
    // Text, the verdict colours and at least one picture's dark ground.
    EXPECT_GT(colours.size(), 50);
    EXPECT_GT(ink, image.width() * image.height() / 4 / 50);
}
