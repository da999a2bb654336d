#include "yuvnode.h"

#include "yuvtextures.h"

#include <QOpenGLContext>
#include <QOpenGLFunctions>
#include <QOpenGLShaderProgram>
#include <QSGMaterial>
#include <QSGMaterialShader>

#include <atomic>

namespace zevqml {

namespace {

std::atomic<bool> shaderBroken{false};

const char vertexSource[] = R"(
uniform highp mat4 toClip;
uniform highp vec2 chromaScale;
attribute highp vec4 position;
attribute highp vec2 coordinate;
varying highp vec2 lumaAt;
varying highp vec2 chromaAt;
void main()
{
    lumaAt = coordinate;
    chromaAt = coordinate * chromaScale;
    gl_Position = toClip * position;
}
)";

const char planarSource[] = R"(
uniform sampler2D plane0;
uniform sampler2D plane1;
uniform sampler2D plane2;
uniform mediump mat4 toRgb;
uniform lowp float opacity;
varying highp vec2 lumaAt;
varying highp vec2 chromaAt;
void main()
{
    mediump vec4 yuv = vec4(texture2D(plane0, lumaAt).r, texture2D(plane1, chromaAt).r,
                            texture2D(plane2, chromaAt).r, 1.0);
    gl_FragColor = vec4(clamp((toRgb * yuv).rgb, 0.0, 1.0), 1.0) * opacity;
}
)";

const char interleavedSource[] = R"(
uniform sampler2D plane0;
uniform sampler2D plane1;
uniform mediump mat4 toRgb;
uniform lowp float opacity;
varying highp vec2 lumaAt;
varying highp vec2 chromaAt;
void main()
{
    mediump vec4 yuv = vec4(texture2D(plane0, lumaAt).r, texture2D(plane1, chromaAt).ra, 1.0);
    gl_FragColor = vec4(clamp((toRgb * yuv).rgb, 0.0, 1.0), 1.0) * opacity;
}
)";

} // namespace

class YuvMaterial : public QSGMaterial
{
public:
    explicit YuvMaterial(bool interleaved) : m_interleaved(interleaved) {}

    QSGMaterialType *type() const override
    {
        static QSGMaterialType planar;
        static QSGMaterialType interleaved;
        return m_interleaved ? &interleaved : &planar;
    }
    QSGMaterialShader *createShader() const override;
    int compare(const QSGMaterial *other) const override
    {
        // Every material has textures of its own; the order only has to be a stable one.
        return this == other ? 0 : (this < other ? -1 : 1);
    }

    const bool m_interleaved;
    YuvTextures textures;
    QMatrix4x4 toRgb;
    QSizeF chromaScale{1.0, 1.0};
};

namespace {

class YuvShader : public QSGMaterialShader
{
public:
    explicit YuvShader(bool interleaved) : m_interleaved(interleaved) {}

    char const *const *attributeNames() const override
    {
        static const char *const names[] = {"position", "coordinate", nullptr};
        return names;
    }
    void updateState(const RenderState &state, QSGMaterial *newMaterial, QSGMaterial *) override
    {
        auto *material = static_cast<YuvMaterial *>(newMaterial);
        if (state.isMatrixDirty())
            program()->setUniformValue(m_toClip, state.combinedMatrix());
        if (state.isOpacityDirty())
            program()->setUniformValue(m_opacity, state.opacity());
        program()->setUniformValue(m_toRgb, material->toRgb);
        program()->setUniformValue(m_chromaScale, material->chromaScale);
        material->textures.bind(state.context()->functions());
    }

protected:
    const char *vertexShader() const override { return vertexSource; }
    const char *fragmentShader() const override { return m_interleaved ? interleavedSource : planarSource; }
    void initialize() override
    {
        if (!program()->isLinked()) {
            shaderBroken = true;
            return;
        }
        m_toClip = program()->uniformLocation("toClip");
        m_chromaScale = program()->uniformLocation("chromaScale");
        m_toRgb = program()->uniformLocation("toRgb");
        m_opacity = program()->uniformLocation("opacity");
        program()->setUniformValue("plane0", 0);
        program()->setUniformValue("plane1", 1);
        if (!m_interleaved)
            program()->setUniformValue("plane2", 2);
    }

private:
    const bool m_interleaved;
    int m_toClip = -1;
    int m_chromaScale = -1;
    int m_toRgb = -1;
    int m_opacity = -1;
};

} // namespace

QSGMaterialShader *YuvMaterial::createShader() const
{
    return new YuvShader(m_interleaved);
}

YuvNode::YuvNode(QVideoFrame::PixelFormat format)
    : m_format(format), m_geometry(QSGGeometry::defaultAttributes_TexturedPoint2D(), 4),
      m_material(new YuvMaterial(format == QVideoFrame::Format_NV12))
{
    QSGGeometry::updateTexturedRectGeometry(&m_geometry, QRectF(), QRectF());
    QSGGeometryNode::setGeometry(&m_geometry);
    setMaterial(m_material);
    setFlags(OwnsMaterial | UsePreprocess);
}

YuvNode::~YuvNode() = default;

void YuvNode::setFrame(const QVideoFrame &frame, YuvColors colors)
{
    m_pending = frame;
    m_material->toRgb = yuvToRgb(resolve(colors, frame.size()));
    // The last chroma column and row of an odd size reach half outside the picture.
    const QSize chroma((frame.width() + 1) / 2, (frame.height() + 1) / 2);
    m_material->chromaScale =
        QSizeF(frame.width() / (2.0 * chroma.width()), frame.height() / (2.0 * chroma.height()));
    markDirty(DirtyMaterial);
}

void YuvNode::setGeometry(const FillGeometry &geometry)
{
    if (m_fill.target == geometry.target && m_fill.source == geometry.source)
        return;
    m_fill = geometry;
    QSGGeometry::updateTexturedRectGeometry(&m_geometry, geometry.target, geometry.source);
    markDirty(DirtyGeometry);
}

bool YuvNode::shaderFailed()
{
    return shaderBroken;
}

void YuvNode::preprocess()
{
    if (!m_pending.isValid())
        return;
    m_failed = !m_material->textures.upload(m_pending);
    m_pending = QVideoFrame();
    if (m_failed && m_material->textures.isEmpty()) {
        // There is nothing to sample from: draw nothing rather than what happens to be bound.
        QSGGeometry::updateTexturedRectGeometry(&m_geometry, QRectF(), QRectF());
        m_fill = {};
        markDirty(DirtyGeometry);
    }
}

} // namespace zevqml
