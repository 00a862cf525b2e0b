#pragma once

#include <vexel/export.h>

#include <memory>

/// A byte-stream cipher keyed by a password: three wheels of key bytes turn together, and the exclusive or of
/// their present bytes is the key for the next byte. Kept so that data enciphered with it stays readable; it
/// does not resist an attacker.
///
/// Direction and mode may be changed between bytes. In ModeStream the key depends on the position alone, so
/// that a stream can be entered anywhere by SetPtr; in ModeFeedback every byte depends on those before it. A
/// switch back to ModeStream keeps the last feedback byte in play.
///
/// One object belongs to one thread at a time. Deciphering is not safe on two threads at once even with
/// different objects: its intermediate byte lies in storage that all of them share.
class VEXEL_API SECCryptoBlackBox {
public:
    enum eDir : int { DirEncrypt = 0, DirDecrypt = 1 };
    enum eMode : int { ModeStream = 0, ModeFeedback = 1 };

    /// Without a password, or with an empty one, the object has no key until SetPassword gives it one; its
    /// key bytes are 0 until then. Throws std::bad_alloc.
    SECCryptoBlackBox(wchar_t* password = nullptr, eDir direction = DirEncrypt, eMode mode = ModeStream);
    /// A copy shares the wheels: a byte that passes through one of the two turns them for both.
    SECCryptoBlackBox(const SECCryptoBlackBox&) noexcept = default;
    SECCryptoBlackBox& operator=(const SECCryptoBlackBox&) noexcept = default;
    ~SECCryptoBlackBox();

    /// Gives the object its key, which can be done once. Returns 1 on success. Returns 0 when there is a key
    /// already, which stays in force, for a null pointer, and for a password without a byte to hash. Only the
    /// bytes before the first zero byte count: of a text in Latin letters that is the first letter. Existing
    /// data depend on that. A key takes 14 kB and some microseconds to lay out. Throws std::bad_alloc.
    int SetPassword(const wchar_t* password);

    /// Turns the wheels back to the start; feedback bytes stay.
    void Reset();
    /// Turns the wheels to where they are after `offset` bytes; a negative offset counts back from the start.
    void SetPtr(long offset);

    /// Transforms the bytes in place: enciphers them if the direction is DirEncrypt, else deciphers them.
    /// Does nothing for a `length` below 1.
    void TransformBuf(unsigned char* buffer, long length);

    void SetDir(eDir direction) { direction_ = direction; }
    void SetMode(eMode mode) { mode_ = mode; }
    eMode GetMode() { return mode_; }

protected:
    void Encrypt(unsigned char& value);
    void Decrypt(unsigned char& value);

private:
    struct Wheels;

    unsigned char NextKey();
    void HashString(char* input, int inputLength, char* output, int outputLength);
    void encryptAll(unsigned char* buffer, long length);
    void decryptAll(unsigned char* buffer, long length);

    std::shared_ptr<Wheels> wheels_;
    eDir direction_;
    eMode mode_;
    unsigned char decryptFeedback_ = 0;
    unsigned char encryptFeedback_ = 0;
};
