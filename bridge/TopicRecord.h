#ifndef BRIDGE_TOPICRECORD_H
#define BRIDGE_TOPICRECORD_H

#include <set>
#include <string>
#include <vector>

#include "bridge/BridgeFile.h"

/// The topics with a message that the server may keep. The file has them too, so that a later bridge can
/// delete messages of keys that went away in between.
class TopicRecord
{
public:
    /// Reads the file.
    explicit TopicRecord(BridgeFile& file);

    /// Call this before a message is published: a crash must not leave a message that nobody knows.
    void add(const std::string& topic);

    /// The message is deleted. The file follows with the next commit.
    void remove(const std::string& topic);

    /// Writes what has changed.
    void commit();

    /// Additions must be written at once; removals can wait.
    bool hasAdditions() const { return !mAdded.empty(); }

    const std::set<std::string>& topics() const { return mTopics; }

private:
    void load();
    void writeTo(sqlite3* database) const;

    BridgeFile& mFile;
    unsigned mOpening = 0; // of the file, in which the topics are
    std::set<std::string> mTopics;
    std::set<std::string> mAdded;
    std::set<std::string> mRemoved;
};

#endif
