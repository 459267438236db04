// The root UVs that the exports hand to both writers, and a picture of a groom that a save and load
// does not change.

#include <gtest/gtest.h>

#include <array>
#include <vector>

#include "base/test/temp_files.h"
#include "common/preview_render.h"
#include "common/session_backend.h"
#include "common/starter_guides.h"
#include "files/groom_session_file.h"
#include "graph/graph_tools.h"
#include "mesh/sample_meshes.h"
#include "mesh/scalp_mesh.h"
#include "session/groom_session.h"
#include "strands/strand_set.h"

namespace velmorin {
namespace {

TEST(RootUvs, FollowTheScalpUvsAtEachRoot) {
    const auto plane = makeUvPlane(2.0f, 1);  // two triangles with UVs over 0..1
    ASSERT_EQ(plane->triangleCount(), 2u);
    const std::vector<Uv>& corners = plane->uvs();
    const auto uvOf = [&](std::size_t corner) {
        return std::array<float, 2>{corners[corner].u, corners[corner].v};
    };
    const Uv centre = {(corners[3].u + corners[4].u + corners[5].u) / 3.0f,
                       (corners[3].v + corners[4].v + corners[5].v) / 3.0f};
    struct Case {
        StrandRoot root;
        std::array<float, 2> uv;
    };
    const std::vector<Case> cases = {
        {{0, 0.0f, 0.0f}, uvOf(0)},                             // a triangle's first corner
        {{0, 1.0f, 0.0f}, uvOf(1)},                             // its second
        {{1, 0.0f, 1.0f}, uvOf(5)},                             // the other's third
        {{1, 1.0f / 3.0f, 1.0f / 3.0f}, {centre.u, centre.v}},  // a triangle's middle
        {{-1, 0.5f, 0.5f}, {0.0f, 0.0f}},                       // not bound to the scalp
        {{7, 0.2f, 0.2f}, {0.0f, 0.0f}},                        // a face it doesn't have
    };
    StrandSet strands;
    const std::vector<Vec3f> points = {{0, 0, 0}, {0, 1, 0}};
    for (std::size_t i = 0; i < cases.size(); ++i)
        strands.addStrand(i + 1, cases[i].root, points);

    const auto uvs = rootUvsOf(strands, plane.get());
    ASSERT_EQ(uvs.size(), cases.size());
    for (std::size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_NEAR(uvs[i][0], cases[i].uv[0], 1e-6f);
        EXPECT_NEAR(uvs[i][1], cases[i].uv[1], 1e-6f);
    }
    // The corners differ, so the table above tells the corners apart.
    EXPECT_NE(uvOf(0), uvOf(1));

    // Without UVs, or without a scalp, every strand gets (0, 0), one per strand.
    const ScalpMesh bare(plane->points(), plane->triangles());
    const std::vector<std::array<float, 2>> zeros(cases.size(), {0.0f, 0.0f});
    EXPECT_EQ(rootUvsOf(strands, &bare), zeros);
    EXPECT_EQ(rootUvsOf(strands, nullptr), zeros);
}

PreviewImage pictureOf(GroomSession& session) {
    FrameRequest request;
    request.viewport = false;
    const auto frame = session.evaluate(request);
    EXPECT_TRUE(frame && frame->strands && frame->strands->strandCount() > 0);
    PreviewRenderOptions options;
    options.width = 96;
    options.height = 96;
    options.view = PreviewView::ThreeQuarter;
    return renderPreview(*frame->strands, session.scalp().get(), options);
}

TEST(GroomPicture, IsTheSameAfterASaveAndLoad) {
    GroomSession session;
    const auto scalp = makeHeadScalp();
    StarterGuideOptions guides;
    guides.count = 12;
    session.setScalp(scalp);
    session.setGraph(defaultGraphJson());
    session.setHierarchy(std::make_shared<const GuideHierarchy>(makeStarterGuides(*scalp, guides)));
    session.setPreviewDensity(0.1);
    const PreviewImage before = pictureOf(session);

    const test::TempFolder folder("picture");
    saveGroom(session, folder.file("round_trip.groom"));
    GroomSession loaded;
    loadGroom(loaded, folder.file("round_trip.groom"));
    loaded.setPreviewDensity(0.1);
    const PreviewImage after = pictureOf(loaded);

    EXPECT_EQ(before.rgba, after.rgba);
    // Hair is in the picture, not the scalp and background alone.
    std::size_t covered = 0;
    for (std::size_t i = 3; i < before.linear.size(); i += 4)
        covered += before.linear[i] > 0.5f;
    EXPECT_GT(covered, 50u);
}

}  // namespace
}  // namespace velmorin
