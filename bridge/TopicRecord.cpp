#include "bridge/TopicRecord.h"

TopicRecord::TopicRecord(BridgeFile& file) : mFile(file)
{
    load();
}

void TopicRecord::load()
{
    mOpening = mFile.openings();
    mFile.read(
        [this](sqlite3* database)
        {
            Sql rows(database, "SELECT topic FROM topics");
            while (rows.step())
                mTopics.insert(rows.text(0));
        });
}

void TopicRecord::add(const std::string& topic)
{
    mRemoved.erase(topic);
    if (mTopics.insert(topic).second)
        mAdded.insert(topic);
}

void TopicRecord::remove(const std::string& topic)
{
    if (mTopics.erase(topic) != 0)
        mRemoved.insert(topic);
    mAdded.erase(topic);
}

// A file that was opened again may lack everything, or have topics that were removed meanwhile: these are
// deleted once more.
void TopicRecord::commit()
{
    if (mFile.openings() != mOpening)
    {
        load();
        mAdded = mTopics;
    }
    if (mAdded.empty() && mRemoved.empty())
        return;
    mFile.write([this](sqlite3* database) { writeTo(database); }); // after a failure all are written again
    mAdded.clear();
    mRemoved.clear();
}

void TopicRecord::writeTo(sqlite3* database) const
{
    Sql add(database, "INSERT OR IGNORE INTO topics VALUES (?)");
    for (const std::string& topic : mAdded)
    {
        add.bind(topic).step();
        add.reset();
    }
    Sql remove(database, "DELETE FROM topics WHERE topic = ?");
    for (const std::string& topic : mRemoved)
    {
        remove.bind(topic).step();
        remove.reset();
    }
}
