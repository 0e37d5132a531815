#include "KTBase/KTState.h"

#include "KTLibrary.h"

namespace {

// Both classes keep the same fields; each of these takes the lock that guards them all.

template <typename T>
T Read(const T& field) {
    CKTGuard hold(KTLibraryGet().state);
    return field;
}

template <typename T>
T Write(T& field, T value) {
    CKTGuard hold(KTLibraryGet().state);
    field = value;
    return value;
}

int Add(int& count, int step) {
    CKTGuard hold(KTLibraryGet().state);
    count += step;
    return count;
}

unsigned int Flag(unsigned int bit) {
    return 1u << (bit & 31);
}

unsigned int Set(unsigned int& state, unsigned int bit) {
    CKTGuard hold(KTLibraryGet().state);
    state |= Flag(bit);
    return state;
}

unsigned int Clear(unsigned int& state, unsigned int bit) {
    CKTGuard hold(KTLibraryGet().state);
    state &= ~Flag(bit);
    return state;
}

}  // namespace

IKTState::~IKTState() = default;

int IKTState::SetError(int error) {
    return Write(m_error, error);
}

int IKTState::GetError() {
    return Read(m_error);
}

unsigned int IKTState::GetState() {
    return Read(m_state);
}

bool IKTState::CheckState(unsigned int bit) {
    return (Read(m_state) & Flag(bit)) != 0;
}

unsigned int IKTState::SetState(unsigned int bit) {
    return Set(m_state, bit);
}

unsigned int IKTState::ClearState(unsigned int bit) {
    return Clear(m_state, bit);
}

unsigned int IKTState::ResetState(unsigned int word) {
    return Write(m_state, word);
}

IKTStateRef::~IKTStateRef() = default;

int IKTStateRef::AddRef() {
    return Add(m_ref, 1);
}

int IKTStateRef::Release() {
    return Add(m_ref, -1);
}

int IKTStateRef::GetRef() {
    return Read(m_ref);
}

int IKTStateRef::SetError(int error) {
    return Write(m_error, error);
}

int IKTStateRef::GetError() {
    return Read(m_error);
}

unsigned int IKTStateRef::GetState() {
    return Read(m_state);
}

bool IKTStateRef::CheckState(unsigned int bit) {
    return (Read(m_state) & Flag(bit)) != 0;
}

unsigned int IKTStateRef::SetState(unsigned int bit) {
    return Set(m_state, bit);
}

unsigned int IKTStateRef::ClearState(unsigned int bit) {
    return Clear(m_state, bit);
}

unsigned int IKTStateRef::ResetState(unsigned int word) {
    return Write(m_state, word);
}
