#include "AnswerWriter.h"

void AnswerWriter::append(const std::string& acrText)
{
    mText += acrText;
    // A full message is sent only when more text follows, because the last message has a different kind.
    while (mText.size() > cPayloadSize) {
        send(AK_More, mText.substr(0, cPayloadSize));
        mText.erase(0, cPayloadSize);
    }
}

void AnswerWriter::end() { send(AK_End, mText); }

void AnswerWriter::fail(const std::string& acrReason) { send(AK_Error, acrReason.substr(0, cPayloadSize)); }

void AnswerWriter::send(AnswerKind aKind, const std::string& acrText)
{
    if (mIsEnding()) {
        throw AnswerDropped{"the daemon ends"};
    }
    AnswerHeader lHeader = {};
    ClibMemcpy(lHeader.mToken, mToken.c_str(), static_cast<unsigned int>(mToken.size()));
    lHeader.mSequence = mSequence++;
    lHeader.mKind = aKind;

    unsigned char lMessage[cMessageSize];
    ClibMemcpy(lMessage, &lHeader, sizeof lHeader);
    ClibMemcpy(lMessage + sizeof lHeader, acrText.data(), static_cast<unsigned int>(acrText.size()));
    if (!mMailbox.write(lMessage, static_cast<unsigned int>(sizeof lHeader + acrText.size()))) {
        throw AnswerDropped{"no tool takes it"};
    }
}
