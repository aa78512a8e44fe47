#pragma once
// Whether a text can be drawn with the installed fonts: laid out as a label would lay it out
// (font fallback included), every character must get a real glyph, not the empty box a font
// gives for characters it lacks. The Vietnamese texts need a font with Vietnamese coverage
// (on Debian: fonts-dejavu-core).
#include <QFont>
#include <QGlyphRun>
#include <QSet>
#include <QString>
#include <QTextLayout>

// The characters of `text` that no installed font draws, each once; empty when all can be drawn.
inline QString missingGlyphs(const QString& text, const QFont& font)
{
    QString missing;
    QSet<uint> checked;
    for (const uint codePoint : text.toUcs4()) {
        if (codePoint == '\n' || codePoint == ' ' || checked.contains(codePoint))
            continue;
        checked.insert(codePoint);
        const QString one = QString::fromUcs4(&codePoint, 1);
        QTextLayout layout(one, font);
        layout.beginLayout();
        layout.createLine();
        layout.endLayout();
        bool drawn = false;
        for (const QGlyphRun& run : layout.glyphRuns()) {
            for (const quint32 glyph : run.glyphIndexes())
                drawn = drawn || glyph != 0;
        }
        if (!drawn)
            missing += one;
    }
    return missing;
}
