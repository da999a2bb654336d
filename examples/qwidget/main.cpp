// qwidget [URL]: a store's picture in a widget, and its sound.
#include <QApplication>
#include <QMessageBox>
#include <QPainter>
#include <QWidget>
#include <zevqt-mm/audioplayer.h>
#include <zevqt-mm/mediaprovider.h>
#include <zevqt-mm/mediasource.h>

#include <stdexcept>

class Picture : public QWidget
{
public:
    explicit Picture(MediaProvider *provider) : m_provider(provider)
    {
        provider->setFrameRate(25.0);
        provider->enableImageFrames(); // converted in the tick thread, to the size of this widget
        connect(provider, &MediaProvider::imageReady, this, [this](const QImage &image) {
            m_image = image; // null: there is no signal, and no picture for that
            update();
        });
    }

protected:
    void resizeEvent(QResizeEvent *) override
    {
        m_provider->setRequestedFrameSize(size() * devicePixelRatioF());
    }
    void paintEvent(QPaintEvent *) override
    {
        QPainter painter(this);
        painter.fillRect(rect(), Qt::black);
        const QSize shown = m_image.size().scaled(size(), Qt::KeepAspectRatio);
        QRect place(QPoint(0, 0), shown);
        place.moveCenter(rect().center());
        if (!m_image.isNull())
            painter.drawImage(place, m_image);
    }

private:
    MediaProvider *const m_provider;
    QImage m_image;
};

int main(int argc, char **argv)
{
    QApplication application(argc, argv);
    const QUrl url(argc > 1 ? argv[1] : "shm:///demo");
    try {
        MediaProvider provider(url, url); // sound out of the same store
        Picture picture(&provider);
        picture.resize(960, 540);
        picture.setWindowTitle(url.toString());
        picture.show();
        provider.setRunning(true);

        AudioPlayer *player = AudioPlayer::getInstance();
        player->setDelay(400000); // microseconds; the device's buffer has to fit
        player->setMaxDelay(500000);
        if (player->setDevice("default"))
            player->start(qobject_cast<MediaSource *>(provider.getAudioSource().data()), 25.0);
        const int code = application.exec();
        AudioPlayer::teardown();
        return code;
    } catch (const std::exception &error) { // a URL that cannot be used
        QMessageBox::critical(nullptr, url.toString(), QString::fromUtf8(error.what()));
        return 1;
    }
}
