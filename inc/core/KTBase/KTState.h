// State flags and an error code that any thread may read and change.
#ifndef KTBASE_KTSTATE_H
#define KTBASE_KTSTATE_H

#include "KTBase/KTDefs.h"
#include "KTBase/KTObject.h"

/// 32 state flags and an error code, all 0 at construction; a base for classes that carry a state.
/// Every operation may be called from any thread: one process-wide lock guards the fields of all
/// state objects. Copying is not guarded: nobody else may change either object meanwhile.
/// SetState, ClearState and CheckState take a flag number, of which the low five bits count (35 is
/// flag 3); ResetState takes a whole word.
class KTBASE_API IKTState : public IKTBaseOBJ {
public:
    IKTState() = default;
    IKTState(const IKTState&) = default;
    IKTState& operator=(const IKTState&) = default;
    ~IKTState() override;

    virtual int SetError(int error);  ///< Returns error.
    virtual int GetError();
    virtual unsigned int GetState();  ///< The whole flag word.
    virtual bool CheckState(unsigned int bit);
    virtual unsigned int SetState(unsigned int bit);     ///< Returns the new flag word.
    virtual unsigned int ClearState(unsigned int bit);   ///< Returns the new flag word.
    virtual unsigned int ResetState(unsigned int word);  ///< Returns word.

protected:
    unsigned int m_state = 0;
    int m_error = 0;
};

/// State flags and an error code with a reference count of their own, 1 at construction and guarded
/// by the same lock. As with IKTRef, Release never deletes: the caller that gets 0 does, unless a
/// derived class says that its Release has done so. A copy starts with its source's count.
/// The state operations are those of IKTState.
class KTBASE_API IKTStateRef : public IKTBaseOBJ {
public:
    IKTStateRef() = default;
    IKTStateRef(const IKTStateRef&) = default;
    IKTStateRef& operator=(const IKTStateRef&) = default;
    ~IKTStateRef() override;

    virtual int AddRef();   ///< Returns the new count.
    virtual int Release();  ///< Returns the new count; below 0 when released too often.
    virtual int GetRef();

    virtual int SetError(int error);  ///< Returns error.
    virtual int GetError();
    virtual unsigned int GetState();  ///< The whole flag word.
    virtual bool CheckState(unsigned int bit);
    virtual unsigned int SetState(unsigned int bit);     ///< Returns the new flag word.
    virtual unsigned int ClearState(unsigned int bit);   ///< Returns the new flag word.
    virtual unsigned int ResetState(unsigned int word);  ///< Returns word.

protected:
    int m_ref = 1;
    unsigned int m_state = 0;
    int m_error = 0;
};

#endif
