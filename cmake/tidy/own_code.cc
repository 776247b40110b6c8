// A module of clang-tidy for ./dev lint: its check, pelmor-own-code, reports nothing, but keeps the
// others from walking the system's headers, whose findings clang-tidy would only drop. That walk
// takes most of the time of a run. Newer versions of clang-tidy do so by themselves.
#include <vector>

#include "clang-tidy/ClangTidyCheck.h"
#include "clang-tidy/ClangTidyModule.h"
#include "clang-tidy/ClangTidyModuleRegistry.h"

namespace {

namespace matchers = clang::ast_matchers;

class OwnCode : public clang::tidy::ClangTidyCheck {
 public:
  using ClangTidyCheck::ClangTidyCheck;

  void registerMatchers(matchers::MatchFinder* finder) override {
    finder->addMatcher(matchers::translationUnitDecl().bind("unit"), this);
  }

  // The unit is matched before its declarations are visited.
  void check(const matchers::MatchFinder::MatchResult& result) override {
    std::vector<clang::Decl*> own;
    for (clang::Decl* declaration : result.Context->getTranslationUnitDecl()->decls()) {
      if (!result.SourceManager->isInSystemHeader(declaration->getLocation())) {
        own.push_back(declaration);
      }
    }
    result.Context->setTraversalScope(own);
  }
};

class OwnCodeModule : public clang::tidy::ClangTidyModule {
 public:
  void addCheckFactories(clang::tidy::ClangTidyCheckFactories& factories) override {
    factories.registerCheck<OwnCode>("pelmor-own-code");
  }
};

const clang::tidy::ClangTidyModuleRegistry::Add<OwnCodeModule> kRegistered("pelmor", "Own code.");

}  // namespace
