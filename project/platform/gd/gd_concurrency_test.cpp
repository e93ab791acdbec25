// Values from one evaluation read by several threads at once: arrays and
// objects read their members from the parsed document on first need, and
// threads racing to do so must all see the same, complete members.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "qz/platform/gd.h"

namespace kiv {
namespace {

String treeText(int groups, int leaves) {
    String text = L"[";
    for (int g = 0; g < groups; ++g) {
        if (g) text += L",";
        text += L"{\"type\":1,\"name\":\"G" + std::to_wstring(g) + L"\",\"children\":[";
        for (int i = 0; i < leaves; ++i) {
            if (i) text += L",";
            text += L"{\"type\":0,\"path\":\"/shared/g" + std::to_wstring(g) + L"/r" + std::to_wstring(i) + L"\"}";
        }
        text += L"]}";
    }
    return text + L"]";
}

// Reads the whole tree through the views and returns the paths it holds, in order.
std::vector<String> readPaths(const GDVariant& tree, GDContext& ctx) {
    std::vector<String> paths;
    const auto* groups = arrayView(tree.getValue());
    for (std::size_t g = 0; g < groups->getCount(); ++g) {
        GDVariant group, children;
        groups->getElement(g, group);
        objectView(group.getValue())->getProperty(ctx, GDPropertyKey(L"children"), children);
        const auto* leaves = arrayView(children.getValue());
        for (std::size_t i = 0; i < leaves->getCount(); ++i) {
            GDVariant leaf, path;
            leaves->getElement(i, leaf);
            objectView(leaf.getValue())->getProperty(ctx, GDPropertyKey(L"path"), path);
            paths.push_back(path.getString());
        }
    }
    return paths;
}

TEST(GDConcurrency, ThreadsReadingOneTreeForTheFirstTimeAllSeeAllOfIt) {
    constexpr int kThreads = 4;
    for (int round = 0; round < 20; ++round) {
        GDExpressionEvaluator ev;
        GDVariant tree;
        ASSERT_TRUE(ev.evaluateExpression(treeText(8, 16), SIZE_MAX, tree, GDExpressionEvaluator::kJsonLiteral));
        std::atomic<int> ready{0};
        std::vector<std::vector<String>> paths(kThreads);
        std::vector<String> texts(kThreads);
        std::vector<std::size_t> members(kThreads);
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([&, t] {
                GDContext ctx;  // a context per thread, as an evaluator is
                ++ready;
                while (ready.load() < kThreads) std::this_thread::yield();
                // Half the threads list members first, half read single properties first.
                const auto* groups = static_cast<const GDJsonArray*>(tree.getValue());
                if (t % 2 == 0) {
                    for (const GDVariant& g : groups->elements())
                        members[t] += static_cast<const GDJsonObject*>(g.getValue())->members().size();
                    paths[t] = readPaths(tree, ctx);
                } else {
                    paths[t] = readPaths(tree, ctx);
                    for (const GDVariant& g : groups->elements())
                        members[t] += static_cast<const GDJsonObject*>(g.getValue())->members().size();
                }
                texts[t] = GDTypeConversions::toString(ctx, tree);
            });
        }
        for (auto& th : threads) th.join();
        ASSERT_EQ(paths[0].size(), 8u * 16u);
        EXPECT_EQ(paths[0][17], L"/shared/g1/r1");
        for (int t = 1; t < kThreads; ++t) {
            EXPECT_EQ(paths[t], paths[0]);
            EXPECT_EQ(texts[t], texts[0]);
        }
        for (int t = 0; t < kThreads; ++t) EXPECT_EQ(members[t], 8u * 3u);
        EXPECT_EQ(texts[0], treeText(8, 16));
    }
}

TEST(GDConcurrency, ThreadsEvaluatingAtOnceEachReadTheirOwnText) {
    // Documents whose values are gone are handed from evaluation to
    // evaluation, across threads; each value must still read its own text.
    constexpr int kThreads = 4;
    std::atomic<int> mismatches{0};
    std::vector<GDVariant> handedOver(kThreads);  // per thread, a value kept past its round
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int round = 0; round < 200; ++round) {
                GDExpressionEvaluator ev;
                const String text = treeText(1 + (t + round) % 3, 1 + round % 5);
                GDVariant tree;
                if (!ev.evaluateExpression(text, SIZE_MAX, tree, GDExpressionEvaluator::kJsonLiteral)) {
                    ++mismatches;
                    continue;
                }
                if (round % 7 == 0) handedOver[t] = tree;  // kept alive past this round
                GDContext ctx;
                if (GDTypeConversions::toString(ctx, tree) != text) ++mismatches;
                if (readPaths(tree, ctx).size() != static_cast<std::size_t>((1 + (t + round) % 3) * (1 + round % 5)))
                    ++mismatches;
            }
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(mismatches.load(), 0);
    GDContext ctx;
    for (const GDVariant& v : handedOver) EXPECT_FALSE(readPaths(v, ctx).empty());
}

}  // namespace
}  // namespace kiv
