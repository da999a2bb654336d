#pragma once

#include "fillgeometry.h"
#include "yuvcolors.h"

#include <QSGGeometryNode>
#include <QVideoFrame>

#include <memory>

namespace zevqml {

class EglImageMaterial;
class ShownFrame;

/*
 * Draws a frame whose memory EGL imports (EglImageTexture).
 *
 * EGL decodes every frame of a store as full-range BT.709: its hints are fixed. For a stream of another
 * matrix or range the shader undoes that decoding and applies the stream's own. Exact where the driver
 * decodes in the shader; one that clips the decoded color to 0 to 255 first loses what saturated colors of
 * another matrix have beyond. Images that a frame borrows (a camera's) are shown as EGL decodes them: who
 * made them told it the colors.
 *
 * Threads: the scene graph's render thread only. Ownership: holds the shown frame, in the holder that it is
 * given, until the next one is shown.
 */
class EglImageNode : public QSGGeometryNode
{
public:
    explicit EglImageNode(std::shared_ptr<ShownFrame> shown);
    ~EglImageNode() override;

    /* Shows `frame` from now on; false when EGL or GL refuses (EglImageTexture), and then the node shows
     * nothing. */
    bool show(const QVideoFrame &frame, YuvColors colors);
    void setGeometry(const FillGeometry &geometry);

    /* The shader could not be built in some context of this process; the log says why. */
    static bool shaderFailed();

private:
    QSGGeometry m_geometry;
    EglImageMaterial *m_material; // owned by the node (OwnsMaterial)
    FillGeometry m_fill;
};

} // namespace zevqml
