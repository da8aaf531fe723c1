// A clang-tidy check that reports nothing: it confines the other checks to declarations of our own. By
// default they look at everything that the headers of the framework and of the standard library declare,
// which takes four fifths of their time, and what they find there is thrown away.
#include <clang-tidy/ClangTidyCheck.h>
#include <clang-tidy/ClangTidyModule.h>
#include <clang-tidy/ClangTidyModuleRegistry.h>
#include <clang/AST/ASTContext.h>
#include <clang/ASTMatchers/ASTMatchFinder.h>

#include <vector>

namespace {

class OwnCodeCheck final : public clang::tidy::ClangTidyCheck
{
public:
    using ClangTidyCheck::ClangTidyCheck;

    // A translation unit is matched before what is in it, so that the scope is set in time.
    void registerMatchers(clang::ast_matchers::MatchFinder* finder) override
    {
        finder->addMatcher(clang::ast_matchers::translationUnitDecl().bind("unit"), this);
    }

    void check(const clang::ast_matchers::MatchFinder::MatchResult& result) override
    {
        std::vector<clang::Decl*> own;
        for (auto* declaration :
             result.Nodes.getNodeAs<clang::TranslationUnitDecl>("unit")->decls()) {
            if (!result.SourceManager->isInSystemHeader(declaration->getLocation()))
                own.push_back(declaration);
        }
        result.Context->setTraversalScope(own);
    }
};

class OwnCodeModule final : public clang::tidy::ClangTidyModule
{
    void addCheckFactories(clang::tidy::ClangTidyCheckFactories& factories) override
    {
        factories.registerCheck<OwnCodeCheck>("korvane-own-code");
    }
};

const clang::tidy::ClangTidyModuleRegistry::Add<OwnCodeModule> registration("korvane", "");

} // namespace
