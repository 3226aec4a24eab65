// Lets a member function find out whether a callback it called has destroyed its object. The
// object holds a token; the function puts a Watch on its stack before the call and looks at it
// afterwards. No allocation and no atomics: the token and its watches belong to one thread.
//   LivenessToken::Watch alive(liveness);
//   callback();
//   if (!alive) return;  // nothing of the object may be touched any more
#pragma once

namespace tavrinCommon {

class LivenessToken {
 public:
  class Watch {
   public:
// The token keeps the address of a watch on the caller's stack on purpose: the watch takes it back
// when it ends. g++ 12 warns about exactly that.
#if defined(__GNUC__) && !defined(__clang__) && __GNUC__ >= 12
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdangling-pointer"
#endif
    explicit Watch(LivenessToken& token_) : token(&token_), below(token_.top) { token_.top = this; }
#if defined(__GNUC__) && !defined(__clang__) && __GNUC__ >= 12
#pragma GCC diagnostic pop
#endif
    // Watches end in the reverse order of their start (they live on one thread's stack).
    ~Watch() {
      if (token) token->top = below;
    }
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

    // False once the token's object has been destroyed.
    explicit operator bool() const { return token != nullptr; }

   private:
    friend class LivenessToken;
    LivenessToken* token;
    Watch* below;
  };

  LivenessToken() = default;
  ~LivenessToken() {
    for (Watch* watch = top; watch; watch = watch->below) watch->token = nullptr;
  }
  LivenessToken(const LivenessToken&) = delete;
  LivenessToken& operator=(const LivenessToken&) = delete;

 private:
  Watch* top = nullptr;
};

}  // namespace tavrinCommon
