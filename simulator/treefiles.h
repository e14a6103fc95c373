// The tree files: one per model, made of fragments that models share.
#pragma once

#include "simulator/datatree.h"

#include <QString>
#include <QStringList>

namespace simulator {

/// The models that a folder of tree files has, ascending.
QStringList modelsIn(const QString &folder);

/// Merges the file of a model into the tree: first the fragments that its <include> lists, one after the other, then
/// its own <state>. List nodes are merged by their keys.
Refusal loadModel(const QString &folder, const QString &model, DataTree &tree);

/// The folder of tree files that belongs to this program: share/kvsnmp-simulator/trees beside its own bin folder.
QString defaultTreesFolder();

} // namespace simulator
