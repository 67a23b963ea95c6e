#ifndef BROKER_WIRE_HANDSHAKE_H
#define BROKER_WIRE_HANDSHAKE_H

#include <cstddef>
#include <string>
#include <string_view>

/// How a connection begins: a greeting of 64 bytes from each side, then a READY command from each. ZMTP 3.1
/// with the mechanism NULL.
///
/// A peer that sends anything else is closed at the first wrong byte, before its content counts. That
/// excludes other protocols, and older ZMTP versions, which have no handshake and would let a web page post.
class Handshake
{
public:
    /// The types of the sockets on both sides. The peer's type must match.
    enum class Kind
    {
        Request, ///< ROUTER here, REQ or DEALER there
        Post,    ///< SUB here, PUB or XPUB there
        Notify,  ///< XPUB here, SUB or XSUB there
    };

    explicit Handshake(Kind kind) : mKind(kind) {}

    /// The bytes to send at once: greeting and READY. Nothing else may follow before the peer's READY has
    /// come. A client that has not sent its READY takes more bytes for a protocol error, and never connects
    /// again.
    static std::string_view opening(Kind kind);

    enum class Result
    {
        NeedsMore,
        Greeted, ///< the greeting is complete; frames follow
        Refused,
    };

    /// Takes the peer's greeting from the front of `bytes`.
    Result takeGreeting(std::string_view& bytes);

    /// Whether the command is a READY with a matching socket type.
    bool acceptsReady(std::string_view command);

    /// A peer with version 3.0 may not know PING.
    bool knowsPing() const { return mMinorVersion >= 1; }

    /// A REQ ignores what comes before it has asked. A DEALER takes everything for an answer.
    bool isDealer() const { return mIsDealer; }

private:
    bool isGood(std::size_t position, unsigned char byte);

    const Kind mKind;
    std::size_t mGreeted = 0; ///< bytes of the greeting received
    unsigned mMinorVersion = 0;
    bool mIsDealer = false;
};

#endif
