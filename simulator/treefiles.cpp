// The tree files.
#include "simulator/treefiles.h"

#include "simulator/treexml.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QRegularExpression>

namespace simulator {

namespace {

constexpr int maxIncludes = 8; // deep enough; stops a fragment that includes itself

Refusal loadFile(const QString &folder, const QString &name, DataTree &tree, int depth)
{
    QFile file(folder + QLatin1Char('/') + name);
    if (!file.open(QIODevice::ReadOnly))
        return QStringLiteral("%1: %2").arg(file.fileName(), file.errorString()).toStdString();
    if (depth > maxIncludes)
        return name.toStdString() + ": includes go round in a circle";

    const QByteArray xml = file.readAll();
    pugi::xml_document document;
    std::string error;
    if (!readNode({xml.constData(), static_cast<std::size_t>(xml.size())}, document, error) ||
        !hasItsKeys(document.document_element(), error))
        return name.toStdString() + ": " + error;
    const pugi::xml_node root = document.child("tree");
    if (!root)
        return name.toStdString() + ": the root of a tree file is <tree>";
    for (const pugi::xml_node part : root.children())
        if (std::string_view(part.name()) != "include" && std::string_view(part.name()) != "state")
            return name.toStdString() + ": neither <include> nor <state>: " + part.name();

    const QString fragments = QString::fromUtf8(root.child_value("include")).simplified();
    for (const QString &fragment : fragments.split(QLatin1Char(' '), Qt::SkipEmptyParts))
        if (Refusal refusal = loadFile(folder, fragment, tree, depth + 1))
            return refusal;
    if (const pugi::xml_node state = root.child("state"))
        tree.merge(state);
    return std::nullopt;
}

} // namespace

QStringList modelsIn(const QString &folder)
{
    static const QRegularExpression number(QStringLiteral("^[0-9]+\\.xml$"));
    QStringList models = QDir(folder).entryList(QDir::Files, QDir::Name).filter(number);
    for (QString &model : models)
        model.chop(4);
    return models;
}

Refusal loadModel(const QString &folder, const QString &model, DataTree &tree)
{
    const QStringList models = modelsIn(folder);
    if (models.isEmpty())
        return "no tree files in " + folder.toStdString();
    if (!models.contains(model))
        return QStringLiteral("no tree for model %1, there is one for: %2")
            .arg(model, models.join(QLatin1Char(' ')))
            .toStdString();
    return loadFile(folder, model + QStringLiteral(".xml"), tree, 0);
}

QString defaultTreesFolder()
{
    return QDir::cleanPath(QCoreApplication::applicationDirPath() + QStringLiteral("/../share/kvsnmp-simulator/trees"));
}

} // namespace simulator
