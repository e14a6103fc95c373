// The tree files: one per model, composed of shared fragments.
#pragma once

#include "simulator/datatree.h"

#include <QString>
#include <QStringList>

namespace simulator {

/// The models in a folder of tree files, ascending.
QStringList modelsIn(const QString &folder);

/// Merges the file of a model into the tree: first the fragments in its <include>, in order, then its <state>. List
/// nodes are merged by their keys.
Refusal loadModel(const QString &folder, const QString &model, DataTree &tree);

/// The folder of this program's tree files: share/kvsnmp-simulator/trees beside its bin folder.
QString defaultTreesFolder();

} // namespace simulator
