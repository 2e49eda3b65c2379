#pragma once

#include "VintrelCore/FileSystems/Clusters/ClusterClaims.h"
#include "VintrelCore/FileSystems/Clusters/ClusterHeap.h"

/// Lowers the chances of the files in `claims.formerFiles` whose clusters have become another's:
/// that of a file that exists, of a directory, or of another former file that was written later.
/// Where it cannot be told which of two former files was written last, both are doubted. Those of
/// which the level is fixed get a note only, and that wherever two of them meet: of a file without
/// a chain the clusters are guessed, and either one may lie elsewhere. `isRebuilt`: all of them are
/// of a volume without tables, where those that bear no mark of deletion existed last.
///
/// Takes n log n steps for n pieces of files.
void judgeFormerFiles(const ClusterClaims& claims, const ClusterHeap& heap, bool isRebuilt);
