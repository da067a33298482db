#include "LanternmoorPro/platform/qt/QtHttp.hpp"

#include <QNetworkAccessManager>
#include <QNetworkCookie>
#include <QNetworkCookieJar>
#include <QNetworkProxy>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QObject>
#include <QTimer>
#include <QUrl>

#include <utility>

namespace lm::platform::qt {
namespace {

// Offers nothing and keeps nothing, so a cookie set by one answer (a redirect's, say) is
// never sent back, not even within the same exchange.
class NoCookieJar final : public QNetworkCookieJar {
public:
    using QNetworkCookieJar::QNetworkCookieJar;
    QList<QNetworkCookie> cookiesForUrl(const QUrl&) const override { return {}; }
    bool setCookiesFromUrl(const QList<QNetworkCookie>&, const QUrl&) override { return false; }
};

// One GET from start to `done`. It owns its manager (and through it the reply) and deletes
// itself once it has answered, so a late signal of the reply never reaches a caller.
class Exchange final : public QObject {
public:
    Exchange(const HttpRequest& request, std::function<void(HttpResult)> done)
        : bodyLimit_(static_cast<qsizetype>(request.bodyLimit)), done_(std::move(done)) {
        manager_->setCookieJar(new NoCookieJar(manager_));
        // The other end is on this machine; a proxy from the environment would answer for
        // another one.
        manager_->setProxy(QNetworkProxy::NoProxy);
        start(request);
    }

private:
    void start(const HttpRequest& request) {
        QNetworkRequest networkRequest(QUrl(QString::fromStdString(request.url)));
        networkRequest.setAttribute(QNetworkRequest::CacheLoadControlAttribute, QNetworkRequest::AlwaysNetwork);
        networkRequest.setAttribute(QNetworkRequest::CacheSaveControlAttribute, false);
        networkRequest.setTransferTimeout(static_cast<int>(request.idleTimeout.count()));

        reply_ = manager_->get(networkRequest);
        connect(reply_, &QNetworkReply::readyRead, this, [this] { takeAvailable(); });
        connect(reply_, &QNetworkReply::finished, this, [this] { replyFinished(); });
        QTimer::singleShot(request.totalTimeout, Qt::PreciseTimer, this, [this] { answer(HttpResult::failed()); });
    }

    void takeAvailable() {
        body_ += reply_->readAll();
        if (body_.size() <= bodyLimit_) return;
        // One byte over the limit is enough to tell "too large"; the rest is not waited for.
        body_.truncate(bodyLimit_ + 1);
        answer(judgedReply());
    }

    void replyFinished() {
        if (isTransportFailure()) {
            answer(HttpResult::failed());
            return;
        }
        takeAvailable();
        answer(judgedReply());
    }

    // Qt also reports error statuses (404, 500, ...) and a redirect without a place to go as
    // reply errors, though the answer came back whole. Anything else means the exchange broke off.
    bool isTransportFailure() const {
        auto error = reply_->error();
        if (error == QNetworkReply::NoError) return false;
        return !isHttpStatusError(error) || !reply_->attribute(QNetworkRequest::HttpStatusCodeAttribute).isValid();
    }

    static bool isHttpStatusError(QNetworkReply::NetworkError error) {
        return (error >= QNetworkReply::ContentAccessDenied && error <= QNetworkReply::UnknownContentError) ||
               (error >= QNetworkReply::InternalServerError && error <= QNetworkReply::UnknownServerError) ||
               error == QNetworkReply::ProtocolUnknownError || error == QNetworkReply::ProtocolInvalidOperationError ||
               error == QNetworkReply::ProxyAuthenticationRequiredError;
    }

    HttpResult judgedReply() const {
        auto status = reply_->attribute(QNetworkRequest::HttpStatusCodeAttribute);
        if (!status.isValid()) return HttpResult{HttpResult::Kind::notHttp, 0, {}};
        return HttpResult::reply(status.toInt(), body_.toStdString());
    }

    // The first answer wins; the reply is cut off so nothing more arrives, and this object
    // goes once control is back in the event loop.
    void answer(HttpResult result) {
        if (!done_) return;
        auto done = std::exchange(done_, nullptr);
        reply_->disconnect(this);
        reply_->abort();
        deleteLater();
        done(std::move(result));
    }

    QNetworkAccessManager* manager_ = new QNetworkAccessManager(this);
    QNetworkReply* reply_ = nullptr;
    qsizetype bodyLimit_;
    QByteArray body_;
    std::function<void(HttpResult)> done_;
};

}  // namespace

void QtHttp::get(const HttpRequest& request, std::function<void(HttpResult)> done) {
    new Exchange(request, std::move(done));
}

}  // namespace lm::platform::qt
