#pragma once

#include "fillgeometry.h"
#include "yuvcolors.h"

#include <QSGGeometryNode>
#include <QVideoFrame>

namespace zevqml {

class YuvMaterial;

/*
 * Draws a mapped 4:2:0 frame with its own matrix and range.
 *
 * Qt Quick's own node for such frames takes what is not stated as limited BT.601 and cannot express
 * full-range BT.709, which is what stores carry; hence this one.
 *
 * Threads: the scene graph's render thread only.
 * Ownership: holds a frame from setFrame() until the next rendering has copied its planes into textures, and
 * none afterwards.
 */
class YuvNode : public QSGGeometryNode
{
public:
    explicit YuvNode(QVideoFrame::PixelFormat format);
    ~YuvNode() override;

    QVideoFrame::PixelFormat format() const { return m_format; }

    /* `frame` has the format that the node was made for. It is uploaded when the scene is next rendered. */
    void setFrame(const QVideoFrame &frame, YuvColors colors);
    void setGeometry(const FillGeometry &geometry);

    /* The shader could not be built in some context of this process; the log says why. */
    static bool shaderFailed();

    /* The last frame's planes could not be mapped or uploaded. */
    bool failed() const { return m_failed; }

    void preprocess() override;

private:
    const QVideoFrame::PixelFormat m_format;
    QSGGeometry m_geometry;
    YuvMaterial *m_material; // owned by the node (OwnsMaterial)
    QVideoFrame m_pending;
    FillGeometry m_fill;
    bool m_failed = false;
};

} // namespace zevqml
