#ifndef BROKER_ANSWERTURN_H
#define BROKER_ANSWERTURN_H

#include <cstddef>

/// Whether a client's next request is answered behind those of others: its answer may be long. A long request
/// asks for many values, one of the last answers was long, or the client has got none yet.
class AnswerTurn
{
public:
    static constexpr std::size_t longRequest = 1024; ///< in bytes; up to this, a request is short
    static constexpr std::size_t longAnswer = std::size_t{8} * 1024; ///< in bytes; shorter ones leave at once

    /// After a long answer, so many short ones are needed.
    static constexpr unsigned mostBehind = 8;

    bool isBehind(std::size_t requestBytes) const { return requestBytes > longRequest || mBehind != 0; }

    /// An answer of this size has left.
    void answered(std::size_t bytes)
    {
        if (bytes >= longAnswer)
            mBehind = mostBehind;
        else if (mBehind != 0)
            --mBehind;
    }

private:
    unsigned mBehind = 1;
};

#endif
