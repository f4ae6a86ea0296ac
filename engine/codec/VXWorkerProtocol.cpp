#include "engine/codec/VXWorkerProtocol.h"

#include "engine/codec/VXFilter.h"
#include "engine/codec/VXFilterPrivate.h"

#include <QCborValue>
#include <QtEndian>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>

namespace vx {
namespace {

// The curve went as text to two decimals, and the pictures and the CLI's
// curves were made from that: the same values, without the text.
double curvePoint(float v)
{
    if (!std::isfinite(v))
        return -INFINITY;
    return std::strtod(QByteArray::number(double(v), 'f', 2).constData(), nullptr);
}

double number(const QCborMap &map, QLatin1StringView key)
{
    const QCborValue v = map.value(key);
    return v.isDouble() || v.isInteger() ? v.toDouble() : NAN;
}

} // namespace

QCborMap loudnessToCbor(const VXLoudness &l, int fields)
{
    QCborMap map;
    if (fields & (kFigures | kInputFigures)) {
        map.insert(QLatin1String("I"), l.integrated);
        map.insert(QLatin1String("LRA"), l.range);
    }
    if (fields & kFigures)
        map.insert(QLatin1String("TP"), l.truePeak);
    if (fields & kGate)
        map.insert(QLatin1String("thresh"), l.threshold);
    if (fields & kMaxima) {
        map.insert(QLatin1String("maxS"), l.maxShortTerm);
        map.insert(QLatin1String("maxM"), l.maxMomentary);
    }
    if (fields & kCurve) {
        QCborArray curve;
        for (const float v : l.shortTerm)
            curve.append(curvePoint(v));
        map.insert(QLatin1String("curve"), curve);
    }
    if (fields & kSteps) {
        QByteArray steps(qsizetype(l.steps.size() * sizeof(qint16)), Qt::Uninitialized);
        if (!l.steps.empty())
            qToLittleEndian<qint16>(l.steps.data(), qsizetype(l.steps.size()), steps.data());
        map.insert(QLatin1String("steps"), steps);
    }
    return map;
}

VXLoudness loudnessFromCbor(const QCborMap &map)
{
    VXLoudness l;
    l.integrated = number(map, QLatin1String("I"));
    l.truePeak = number(map, QLatin1String("TP"));
    l.range = number(map, QLatin1String("LRA"));
    l.threshold = number(map, QLatin1String("thresh"));
    l.maxShortTerm = number(map, QLatin1String("maxS"));
    l.maxMomentary = number(map, QLatin1String("maxM"));
    const QCborArray curve = map.value(QLatin1String("curve")).toArray();
    l.shortTerm.reserve(size_t(curve.size()));
    for (const QCborValue &v : curve)
        l.shortTerm.push_back(float(v.toDouble(-INFINITY)));
    const QByteArray steps = map.value(QLatin1String("steps")).toByteArray();
    l.steps.resize(size_t(steps.size()) / sizeof(qint16));
    if (!l.steps.empty()) {
        qFromLittleEndian<qint16>(steps.constData(), qsizetype(l.steps.size()), l.steps.data());
        if (!map.contains(QLatin1String("curve")))
            VXCurveFromSteps(l);
    }
    return l;
}

QCborMap albumToCbor(const VXAlbumLoudness &a)
{
    QCborArray tracks;
    for (size_t i = 0; i < a.tracks.size(); ++i) {
        const VXLoudness &t = a.tracks[i];
        QCborMap track;
        if (t.measured())
            track.insert(QLatin1String("loudness"), loudnessToCbor(t, kFigures | kGate));
        else
            track.insert(QLatin1String("reason"), a.reasons.value(qsizetype(i)).simplified());
        tracks.append(track);
    }
    QCborMap m = message("album");
    m.insert(QLatin1String("tracks"), tracks);
    m.insert(QLatin1String("album"), loudnessToCbor(a.album, kFigures));
    return m;
}

VXAlbumLoudness albumFromCbor(const QCborMap &m)
{
    VXAlbumLoudness a;
    for (const QCborValue &t : m.value(QLatin1String("tracks")).toArray()) {
        const QCborMap track = t.toMap();
        a.tracks.push_back(loudnessFromCbor(track.value(QLatin1String("loudness")).toMap()));
        a.reasons << track.value(QLatin1String("reason")).toString();
    }
    a.album = loudnessFromCbor(m.value(QLatin1String("album")).toMap());
    return a;
}

QCborMap message(const char *name) { return QCborMap{{QLatin1String("m"), QLatin1String(name)}}; }

QCborArray toCbor(const QStringList &list)
{
    QCborArray array;
    for (const QString &s : list)
        array.append(s);
    return array;
}

QStringList stringsFromCbor(const QCborValue &array)
{
    QStringList list;
    for (const QCborValue &v : array.toArray())
        list << v.toString();
    return list;
}

QStringList filterArguments(const std::vector<std::shared_ptr<VXFilter>> &filters)
{
    QStringList args;
    for (const auto &filter : filters) {
        args << QStringLiteral("--filter") << filter->name();
        const QMap<QString, QVariant> attributes = filter->attributes();
        for (auto it = attributes.begin(); it != attributes.end(); ++it)
            args << QStringLiteral("--attr")
                 << it.key() + QLatin1Char('=') + QString::fromUtf8(VXFilterAccess::optionText(it.value()));
    }
    return args;
}

bool readFilterOption(const QString &option, const QString &value, std::vector<std::shared_ptr<VXFilter>> &filters)
{
    if (option == QLatin1String("--filter")) {
        std::shared_ptr<VXFilter> filter = VXFilter::filterWithName(value);
        if (!filter)
            return false;
        filters.push_back(std::move(filter));
        return true;
    }
    if (option != QLatin1String("--attr") || filters.empty())
        return false;
    const qsizetype eq = value.indexOf(QLatin1Char('='));
    filters.back()->setValue(value.mid(eq + 1), value.left(eq));
    return true;
}

QStringList measureAlbumCommand(const QStringList &tracks, int flags)
{
    return QStringList{QStringLiteral("measure-album"), QStringLiteral("--flags"), QString::number(flags)} + tracks;
}

QStringList measureAlbumTracks(const QStringList &args, int *flags)
{
    const bool given = args.size() >= 2 && args[0] == QLatin1String("--flags");
    if (flags)
        *flags = given ? args[1].toInt() : 0;
    return given ? args.mid(2) : args;
}

ssize_t sendRequest(int sock, const void *data, size_t size, int fd)
{
    iovec iov{const_cast<void *>(data), size};
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    if (fd >= 0) {
        msg.msg_control = control;
        msg.msg_controllen = sizeof control;
        cmsghdr *c = CMSG_FIRSTHDR(&msg);
        c->cmsg_level = SOL_SOCKET;
        c->cmsg_type = SCM_RIGHTS;
        c->cmsg_len = CMSG_LEN(sizeof(int));
        std::memcpy(CMSG_DATA(c), &fd, sizeof fd);
    }
    ssize_t n;
    while ((n = ::sendmsg(sock, &msg, MSG_NOSIGNAL)) < 0 && errno == EINTR) {
    }
    return n;
}

ssize_t receiveRequest(int sock, void *data, size_t size, int *fd)
{
    iovec iov{data, size};
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    ssize_t n;
    while ((n = ::recvmsg(sock, &msg, MSG_CMSG_CLOEXEC)) < 0 && errno == EINTR) {
    }
    *fd = -1;
    for (cmsghdr *c = CMSG_FIRSTHDR(&msg); n > 0 && c; c = CMSG_NXTHDR(&msg, c))
        if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_RIGHTS)
            std::memcpy(fd, CMSG_DATA(c), sizeof *fd);
    return n;
}

} // namespace vx
