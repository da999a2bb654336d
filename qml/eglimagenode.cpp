#include "eglimagenode.h"

#include "eglimagetexture.h"

#include <QOpenGLContext>
#include <QOpenGLFunctions>
#include <QOpenGLShaderProgram>
#include <QSGMaterial>
#include <QSGMaterialShader>

#include <atomic>
#include <utility>

namespace zevqml {

namespace {

std::atomic<bool> shaderBroken{false};

const char vertexSource[] = R"(
uniform highp mat4 toClip;
attribute highp vec4 position;
attribute highp vec2 coordinate;
varying highp vec2 at;
void main()
{
    at = coordinate;
    gl_Position = toClip * position;
}
)";

const char fragmentSource[] = R"(#extension GL_OES_EGL_image_external : require
uniform mediump samplerExternalOES picture;
uniform mediump mat4 correction;
uniform lowp float opacity;
varying highp vec2 at;
void main()
{
    mediump vec4 decoded = vec4(texture2D(picture, at).rgb, 1.0);
    gl_FragColor = vec4(clamp((correction * decoded).rgb, 0.0, 1.0), 1.0) * opacity;
}
)";

} // namespace

class EglImageMaterial : public QSGMaterial
{
public:
    explicit EglImageMaterial(std::shared_ptr<ShownFrame> shown) : texture(std::move(shown)) {}
    QSGMaterialType *type() const override
    {
        static QSGMaterialType external;
        return &external;
    }
    QSGMaterialShader *createShader() const override;
    int compare(const QSGMaterial *other) const override
    {
        return this == other ? 0 : (this < other ? -1 : 1); // never shared: each has its own texture
    }

    EglImageTexture texture;
    QMatrix4x4 correction;
};

namespace {

class EglImageShader : public QSGMaterialShader
{
public:
    char const *const *attributeNames() const override
    {
        static const char *const names[] = {"position", "coordinate", nullptr};
        return names;
    }
    void updateState(const RenderState &state, QSGMaterial *newMaterial, QSGMaterial *) override
    {
        auto *material = static_cast<EglImageMaterial *>(newMaterial);
        if (state.isMatrixDirty())
            program()->setUniformValue(m_toClip, state.combinedMatrix());
        if (state.isOpacityDirty())
            program()->setUniformValue(m_opacity, state.opacity());
        program()->setUniformValue(m_correction, material->correction);
        material->texture.bind(state.context()->functions());
    }

protected:
    const char *vertexShader() const override { return vertexSource; }
    const char *fragmentShader() const override { return fragmentSource; }
    void initialize() override
    {
        if (!program()->isLinked()) {
            shaderBroken = true;
            return;
        }
        m_toClip = program()->uniformLocation("toClip");
        m_correction = program()->uniformLocation("correction");
        m_opacity = program()->uniformLocation("opacity");
        program()->setUniformValue("picture", 0);
    }

private:
    int m_toClip = -1;
    int m_correction = -1;
    int m_opacity = -1;
};

} // namespace

QSGMaterialShader *EglImageMaterial::createShader() const
{
    return new EglImageShader;
}

EglImageNode::EglImageNode(std::shared_ptr<ShownFrame> shown)
    : m_geometry(QSGGeometry::defaultAttributes_TexturedPoint2D(), 4),
      m_material(new EglImageMaterial(std::move(shown)))
{
    QSGGeometry::updateTexturedRectGeometry(&m_geometry, QRectF(), QRectF());
    QSGGeometryNode::setGeometry(&m_geometry);
    setMaterial(m_material);
    setFlags(OwnsMaterial);
}

EglImageNode::~EglImageNode() = default;

bool EglImageNode::show(const QVideoFrame &frame, YuvColors colors)
{
    if (!m_material->texture.show(frame))
        return false;
    const YuvColors fixed = {YuvColors::Matrix::Bt709, YuvColors::Range::Full};
    const YuvColors real = resolve(colors, frame.size());
    const bool isRight = real == fixed || EglImageTexture::isBorrowed(frame);
    m_material->correction = isRight ? QMatrix4x4() : yuvToRgb(real) * yuvToRgb(fixed).inverted();
    markDirty(DirtyMaterial);
    return true;
}

void EglImageNode::setGeometry(const FillGeometry &geometry)
{
    if (m_fill.target == geometry.target && m_fill.source == geometry.source)
        return;
    m_fill = geometry;
    QSGGeometry::updateTexturedRectGeometry(&m_geometry, geometry.target, geometry.source);
    markDirty(DirtyGeometry);
}

bool EglImageNode::shaderFailed()
{
    return shaderBroken;
}

} // namespace zevqml
